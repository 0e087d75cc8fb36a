#include "handle_table.h"

#include <mutex>

namespace nos_host {

Handle HandleTable::Add(std::shared_ptr<HandleObject> object)
{
    if (!object)
        return INVALID_HANDLE;
    std::unique_lock lock(mutex_);
    if (objects_.size() >= size_t{INVALID_HANDLE} - 1)
        return INVALID_HANDLE;
    for (;;) {
        const Handle candidate = next_++;
        if (candidate == 0 || candidate == INVALID_HANDLE || objects_.contains(candidate))
            continue;
        objects_.emplace(candidate, std::move(object));
        return candidate;
    }
}

std::shared_ptr<HandleObject> HandleTable::Get(Handle handle) const
{
    std::shared_lock lock(mutex_);
    auto it = objects_.find(handle);
    return it == objects_.end() ? nullptr : it->second;
}

std::shared_ptr<HandleObject> HandleTable::Remove(Handle handle)
{
    std::unique_lock lock(mutex_);
    auto it = objects_.find(handle);
    if (it == objects_.end())
        return nullptr;
    auto object = std::move(it->second);
    objects_.erase(it);
    return object;
}

HandleTable& HandleTable::Process()
{
    // Never destroyed: threads may still use handles while the process exits.
    static auto* table = new HandleTable;
    return *table;
}

}  // namespace nos_host
