// Conversions between a session and its wire record, whose path text lives
// in the message's arena.
#pragma once

#include <nos/message.h>

#include "update/registry/ipc/registry_types.h"

namespace update::registry::ipc {

// Checks the type before the state (eka::CheckFailedException from the enum
// converters), then takes exactly `wire.path.size` bytes of text at
// `wire.path.offset` from the arena start; a text that does not lie wholly
// inside [start, end) throws std::runtime_error. The id is copied last.
SessionInfo ToSessionInfo(const nv_IUpdateRegistry_SessionInfo& wire, nk_arena& arena);

// Appends the path's text (no NUL) at the arena's fill pointer and records
// where it went; std::bad_alloc when it does not fit. An empty path takes
// no room and records the current offset with size 0.
nv_IUpdateRegistry_SessionInfo FromSessionInfo(const SessionInfo& info, nk_arena& arena);

}  // namespace update::registry::ipc
