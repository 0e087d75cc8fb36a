// Message helpers shared by the proxy and the dispatcher (not installed).
#pragma once

#include <nos/message.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "update/registry/ipc/registry_types.h"

namespace update::registry::ipc::wire {

struct MethodTraits {
    const char* name;
    bool requestCarriesHandle;
    bool responseCarriesHandle;
};

// Indexed by Method.
inline constexpr std::array<MethodTraits, kMethodCount> kMethods{{
    {"Open", false, true},
    {"Close", true, false},
    {"GetSessions", false, false},
    {"GetHandle", false, true},
    {"SetState", true, false},
    {"GetInfo", true, false},
}};

constexpr const MethodTraits& Traits(Method method) noexcept { return kMethods[static_cast<std::size_t>(method)]; }

// The size word of a message: its layout's size, plus the handle flag when
// it carries a handle descriptor.
template <typename Message>
constexpr std::uint32_t SizeWord(bool carriesHandle) noexcept
{
    return static_cast<std::uint32_t>(sizeof(Message)) | (carriesHandle ? NK_MSG_HANDLE_FLAG : 0u);
}

template <typename Message>
void SetHeader(Message& message, std::uint16_t riid, Method method, bool carriesHandle) noexcept
{
    message.base_.riid = riid;
    message.base_.mid = static_cast<std::uint16_t>(method);
    message.base_.size = SizeWord<Message>(carriesHandle);
}

}  // namespace update::registry::ipc::wire
