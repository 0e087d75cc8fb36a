// The host update registry: the sessions of update packages, each with a
// package folder in the storage directory, optionally kept in a JSON state
// file that is rewritten atomically on every change.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "eka/guid.h"
#include "update/registry/ipc/registry.h"

namespace update_registry {

class HostRegistry final : public update::registry::ipc::IRegistry {
public:
    using IdSource = std::function<eka::guid_t()>;

    // `storage` is made absolute and created when missing. With a state
    // file, the temporary files that an earlier writer left beside it are
    // removed and its sessions loaded; a file that cannot be read or is not a
    // valid state (see docs/update-registry.md) throws std::runtime_error
    // naming the file and the field, and is left as it is. Without one,
    // sessions last as long as the object. `newId` gives session ids
    // (update::GenerateUuid when empty).
    HostRegistry(std::filesystem::path storage, std::optional<std::filesystem::path> stateFile, IdSource newId = {});

    // Results: 0; 0x8000004C "Not found" for an unknown handle or id;
    // 0x80000046 for a type or state out of range; 0x8000004D "Found" when
    // a new id is taken already; 0x8000006C when every handle is taken; a
    // POSIX-mapped code when the folder or the state file cannot be
    // written, the change then being undone.
    int Open(update::registry::ipc::PackageType type, unsigned int& handle) override;
    // Forgets the session; its package folder stays.
    int Close(unsigned int handle) override;
    // In handle order.
    int GetSessions(std::vector<update::registry::ipc::SessionInfo>& sessions) const override;
    int GetHandle(const eka::guid_t& id, unsigned int& handle) const override;
    int SetState(unsigned int handle, update::registry::ipc::UpdateState state) override;
    int GetInfo(unsigned int handle, update::registry::ipc::SessionInfo& info) const override;

    const std::filesystem::path& storage() const noexcept { return m_storage; }
    std::size_t size() const;

    // Handles run from 1 up to this one, then start again at the lowest free.
    static constexpr std::uint32_t kMaxHandle = 0xFFFFFE;

private:
    using Sessions = std::map<std::uint32_t, update::registry::ipc::SessionInfo>;

    void RemoveStaleTemporaryFiles() const;
    void Load();
    // 0, or the code of the failed write.
    int Save(const Sessions& sessions, std::uint32_t nextHandle) const;
    std::optional<std::uint32_t> FreeHandle() const;

    std::filesystem::path m_storage;
    std::optional<std::filesystem::path> m_stateFile;
    IdSource m_newId;
    mutable std::mutex m_mutex;
    Sessions m_sessions;
    std::uint32_t m_nextHandle = 1;
};

}  // namespace update_registry
