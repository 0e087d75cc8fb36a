// The update registry's session record, its two enumerations, and the exact
// IPC messages of the registry interface `nv_IUpdateRegistry`.
//
// Every message begins with nk_message; all integers are little-endian. The
// layouts are fixed by the registry entity, so each one is pinned below by
// size and offset checks; padding is spelled out and always zero.
#pragma once

#include <nos/message.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "eka/guid.h"

namespace update::registry::ipc {

// The kind of package of a session. The registry decides which value is
// which; the values follow the verifier's endpoints (0 archive, 1 list).
enum class PackageType : std::uint32_t {
    Product = 0,  // a product update archive
    AppList = 1,  // a signed application list
};

// The stages of a session as the registry keeps them. The verifier only
// passes them through.
enum class UpdateState : std::uint32_t {
    Created = 0,
    Downloading = 1,
    Downloaded = 2,
    Verifying = 3,
    Verified = 4,
    VerificationFailed = 5,
    Installing = 6,
    Installed = 7,
    InstallationFailed = 8,
    Cancelled = 9,
    Finished = 10,
};

inline constexpr unsigned int kPackageTypeCount = 2;
inline constexpr unsigned int kUpdateStateCount = 11;

// One session. `path` is the session's package folder relative to the
// update storage, as narrow text.
struct SessionInfo {
    PackageType type = PackageType::Product;
    UpdateState state = UpdateState::Created;
    eka::guid_t id{};
    std::filesystem::path path;

    friend bool operator==(const SessionInfo&, const SessionInfo&) = default;
};

// No session: the value of a handle field that names none.
inline constexpr std::uint32_t kNoHandle = 0xFFFFFFFFu;
// Handles travel in the low 24 bits of a handle descriptor.
inline constexpr std::uint32_t kHandleMask = 0x00FFFFFFu;

// The handle a descriptor's value names: its low 24 bits, the all-ones
// 24-bit value meaning no handle.
constexpr std::uint32_t HandleFromWire(std::uint32_t value) noexcept
{
    const std::uint32_t low = value & kHandleMask;
    return low == kHandleMask ? kNoHandle : low;
}

// Method identifiers (nk_message::mid).
enum class Method : std::uint16_t {
    Open = 0,
    Close = 1,
    GetSessions = 2,
    GetHandle = 3,
    SetState = 4,
    GetInfo = 5,
};
inline constexpr std::uint16_t kMethodCount = 6;

// Response arenas of the two calls with variable-size answers.
inline constexpr std::size_t kGetInfoArenaSize = 4096;
inline constexpr std::size_t kGetSessionsArenaSize = 8256;

}  // namespace update::registry::ipc

extern "C" {

// The wire form of a session (32 bytes). The path's text lies in the
// message's arena, without a terminating NUL.
struct nv_IUpdateRegistry_SessionInfo {
    std::uint8_t type;  // PackageType wire value
    std::uint8_t padding[3];
    std::uint32_t state;  // UpdateState wire value
    std::uint8_t id[16];
    nk_arena_desc path;
};

struct nv_IUpdateRegistry_Open_req {
    nk_message base_;
    std::uint8_t type;
    std::uint8_t padding[7];
};

struct nv_IUpdateRegistry_Open_res {
    nk_message base_;
    nk_handle_desc handle;
    std::int32_t result;
};

struct nv_IUpdateRegistry_Close_req {
    nk_message base_;
    nk_handle_desc handle;
};

struct nv_IUpdateRegistry_Close_res {
    nk_message base_;
    std::int32_t result;
    std::uint8_t padding[4];
};

struct nv_IUpdateRegistry_GetSessions_req {
    nk_message base_;
};

struct nv_IUpdateRegistry_GetSessions_res {
    nk_message base_;
    nk_arena_desc sessions;  // packed nv_IUpdateRegistry_SessionInfo records
    std::int32_t result;
    std::uint8_t padding[4];
};

struct nv_IUpdateRegistry_GetHandle_req {
    nk_message base_;
    std::uint8_t id[16];
};

struct nv_IUpdateRegistry_GetHandle_res {
    nk_message base_;
    nk_handle_desc handle;
    std::int32_t result;
};

struct nv_IUpdateRegistry_SetState_req {
    nk_message base_;
    nk_handle_desc handle;
    std::uint32_t state;
};

struct nv_IUpdateRegistry_SetState_res {
    nk_message base_;
    std::int32_t result;
    std::uint8_t padding[4];
};

struct nv_IUpdateRegistry_GetInfo_req {
    nk_message base_;
    nk_handle_desc handle;
};

struct nv_IUpdateRegistry_GetInfo_res {
    nk_message base_;
    nv_IUpdateRegistry_SessionInfo info;
    std::int32_t result;
    std::uint8_t padding[4];
};

// Any request or response of the interface, for a server's buffers.
union nv_IUpdateRegistry_req {
    nk_message base_;
    nv_IUpdateRegistry_Open_req open;
    nv_IUpdateRegistry_Close_req close;
    nv_IUpdateRegistry_GetSessions_req getSessions;
    nv_IUpdateRegistry_GetHandle_req getHandle;
    nv_IUpdateRegistry_SetState_req setState;
    nv_IUpdateRegistry_GetInfo_req getInfo;
};

union nv_IUpdateRegistry_res {
    nk_message base_;
    nv_IUpdateRegistry_Open_res open;
    nv_IUpdateRegistry_Close_res close;
    nv_IUpdateRegistry_GetSessions_res getSessions;
    nv_IUpdateRegistry_GetHandle_res getHandle;
    nv_IUpdateRegistry_SetState_res setState;
    nv_IUpdateRegistry_GetInfo_res getInfo;
};

}  // extern "C"

static_assert(sizeof(nv_IUpdateRegistry_SessionInfo) == 32);
static_assert(offsetof(nv_IUpdateRegistry_SessionInfo, type) == 0);
static_assert(offsetof(nv_IUpdateRegistry_SessionInfo, state) == 4);
static_assert(offsetof(nv_IUpdateRegistry_SessionInfo, id) == 8);
static_assert(offsetof(nv_IUpdateRegistry_SessionInfo, path) == 24);
static_assert(offsetof(nv_IUpdateRegistry_SessionInfo, path) + offsetof(nk_arena_desc, size) == 28);

static_assert(sizeof(nv_IUpdateRegistry_Open_req) == 0x20 && offsetof(nv_IUpdateRegistry_Open_req, type) == 24);
static_assert(sizeof(nv_IUpdateRegistry_Open_res) == 0x30 && offsetof(nv_IUpdateRegistry_Open_res, handle) == 24 &&
              offsetof(nv_IUpdateRegistry_Open_res, result) == 40);
static_assert(sizeof(nv_IUpdateRegistry_Close_req) == 0x28 && offsetof(nv_IUpdateRegistry_Close_req, handle) == 24);
static_assert(sizeof(nv_IUpdateRegistry_Close_res) == 0x20 && offsetof(nv_IUpdateRegistry_Close_res, result) == 24);
static_assert(sizeof(nv_IUpdateRegistry_GetSessions_req) == 0x18);
static_assert(sizeof(nv_IUpdateRegistry_GetSessions_res) == 0x28 &&
              offsetof(nv_IUpdateRegistry_GetSessions_res, sessions) == 24 &&
              offsetof(nv_IUpdateRegistry_GetSessions_res, result) == 32);
static_assert(sizeof(nv_IUpdateRegistry_GetHandle_req) == 0x28 && offsetof(nv_IUpdateRegistry_GetHandle_req, id) == 24);
static_assert(sizeof(nv_IUpdateRegistry_GetHandle_res) == 0x30 &&
              offsetof(nv_IUpdateRegistry_GetHandle_res, handle) == 24 &&
              offsetof(nv_IUpdateRegistry_GetHandle_res, result) == 40);
static_assert(sizeof(nv_IUpdateRegistry_SetState_req) == 0x30 &&
              offsetof(nv_IUpdateRegistry_SetState_req, handle) == 24 &&
              offsetof(nv_IUpdateRegistry_SetState_req, state) == 40);
static_assert(sizeof(nv_IUpdateRegistry_SetState_res) == 0x20 &&
              offsetof(nv_IUpdateRegistry_SetState_res, result) == 24);
static_assert(sizeof(nv_IUpdateRegistry_GetInfo_req) == 0x28 && offsetof(nv_IUpdateRegistry_GetInfo_req, handle) == 24);
static_assert(sizeof(nv_IUpdateRegistry_GetInfo_res) == 0x40 && offsetof(nv_IUpdateRegistry_GetInfo_res, info) == 24 &&
              offsetof(nv_IUpdateRegistry_GetInfo_res, result) == 56);
static_assert(sizeof(nv_IUpdateRegistry_req) == 0x30 && sizeof(nv_IUpdateRegistry_res) == 0x40);
