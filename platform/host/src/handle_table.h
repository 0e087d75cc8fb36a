// Process-local table of platform handles.
#ifndef NOS_HOST_HANDLE_TABLE_H
#define NOS_HOST_HANDLE_TABLE_H

#include <nos/types.h>

#include <memory>
#include <shared_mutex>
#include <unordered_map>

namespace nos_host {

// Anything a handle can name. Close() is called once, when the handle is
// closed; it must wake every thread blocked on the object. The object itself
// lives on while a call still holds it.
class HandleObject {
public:
    virtual ~HandleObject() = default;
    virtual void Close() {}
};

// The synchronisation object of a server transport. Host transports need no
// kernel object for it; the handle only has to be real.
class SyncObject final : public HandleObject {};

// Thread-safe map of small integer handles to objects. Numbers are handed out
// in increasing order, skipping 0 and INVALID_HANDLE, so a closed handle is
// not reused until the counter wraps.
class HandleTable {
public:
    // INVALID_HANDLE when the object is null or no number is free.
    Handle Add(std::shared_ptr<HandleObject> object);
    std::shared_ptr<HandleObject> Get(Handle handle) const;
    // Removes the entry and returns its object (null when there was none).
    std::shared_ptr<HandleObject> Remove(Handle handle);

    template <class T>
    std::shared_ptr<T> GetAs(Handle handle) const
    {
        return std::dynamic_pointer_cast<T>(Get(handle));
    }

    // The table of this process.
    static HandleTable& Process();

private:
    mutable std::shared_mutex mutex_;
    std::unordered_map<Handle, std::shared_ptr<HandleObject>> objects_;
    Handle next_ = 1;
};

}  // namespace nos_host

#endif
