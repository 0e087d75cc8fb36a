// The server side of the registry interface: decodes each request, calls an
// IRegistry implementation and answers in the interface's layouts.
#pragma once

#include <nos/message.h>

#include <cstdint>

#include "update/registry/ipc/registry.h"

namespace update::registry::ipc {

// The endpoint a server thread dispatches to. Not owned.
struct RegistryComponent {
    IRegistry* registry = nullptr;
    std::uint16_t riid = 0;  // the endpoint's riid: requests for another are refused
};

// Response arenas a server must offer: the largest the interface uses.
inline constexpr std::size_t kDispatchArenaSize = kGetSessionsArenaSize;

// Answers one request. `request` and `response` point to buffers of at
// least nv_IUpdateRegistry_req and nv_IUpdateRegistry_res; `responseArena`
// offers kDispatchArenaSize bytes (less makes long answers fail).
//
// A request the interface does not define (another riid, an unknown method,
// a size that is not the method's, a null argument) gets an error reply:
// the error bit and 32 bytes in the size word, the code at byte 24
// (0x80000057 for an unknown method, 0x80000046 otherwise), and returns -2.
// Otherwise the answer is the method's response, whose result is the
// registry's; a package type or state out of range answers 0x80000046
// without calling the registry, and an answer too long for the caller's
// arena answers 0x80000044. Returns 0 then.
int DispatchRegistry(RegistryComponent* component, const nk_message* request, const nk_arena* requestArena,
                     nk_message* response, nk_arena* responseArena) noexcept;

}  // namespace update::registry::ipc
