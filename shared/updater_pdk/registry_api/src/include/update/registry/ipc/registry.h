// The client interface of the update registry entity.
#pragma once

#include <vector>

#include "eka/guid.h"
#include "update/registry/ipc/registry_types.h"

namespace update::registry::ipc {

// Every call returns an eka result code: 0 on success, negative on failure.
// Handles name sessions; kNoHandle names none.
class IRegistry {
public:
    virtual ~IRegistry() = default;

    virtual int Open(PackageType type, unsigned int& handle) = 0;
    virtual int Close(unsigned int handle) = 0;
    virtual int GetSessions(std::vector<SessionInfo>& sessions) const = 0;
    virtual int GetHandle(const eka::guid_t& id, unsigned int& handle) const = 0;
    virtual int SetState(unsigned int handle, UpdateState state) = 0;
    virtual int GetInfo(unsigned int handle, SessionInfo& info) const = 0;
};

}  // namespace update::registry::ipc
