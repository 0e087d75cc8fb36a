// The dispatch function the entity's server is given.
#pragma once

#include <nos/message.h>

#include "verifier_api/component.h"

namespace update::verifier::entity {

// Routes the request through nv_Verifier_component_dispatch and returns what
// it returns. A request that the dispatcher refuses (an interface index other
// than 0 and 1, or a method index other than 0) leaves no reply behind it,
// and the server sends the reply buffer whatever it holds: the previous
// client's reply, or, before any, a size word of 0 that the transport
// refuses to send, which ends the IPC thread. Such a request is therefore
// answered here with a 32-byte error reply: its interface and method index,
// the error flag, and 0x80000001 ("Interface not supported") for an unknown
// interface or 0x80000057 ("Method not found") for an unknown method.
int DispatchOrRefuse(nv_Verifier_component* component, const nk_message* request, const nk_arena* requestArena,
                     nk_message* response, nk_arena* responseArena);

}  // namespace update::verifier::entity
