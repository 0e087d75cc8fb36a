// The log-storage interface: names, the request and its record layout.
//
// Record (the request arena, 4,120 bytes, little-endian):
//   0   8      reserved, left zero by this sender
//   8   8      int64 time, seconds since the epoch (never negative)
//   16  4      uint32 0
//   20  4      uint32 100
//   24  4,096  the line, NUL-terminated, cut to 4,095 bytes and a NUL
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include <nos/message.h>

namespace nos::logger::nvlog {

inline constexpr const char* kEntityName = "nv.NvlogStorageEntity";
inline constexpr const char* kEndpointName = "nv.NvlogStorage.storage";
inline constexpr std::uint16_t kStoreMethod = 0;

inline constexpr std::size_t kRecordSize = 4120;
inline constexpr std::size_t kTimeOffset = 8;
inline constexpr std::size_t kZeroFieldOffset = 16;
inline constexpr std::size_t kHundredFieldOffset = 20;
inline constexpr std::size_t kTextOffset = 24;
inline constexpr std::size_t kTextCapacity = 4096;  // NUL included
inline constexpr std::uint32_t kZeroFieldValue = 0;
inline constexpr std::uint32_t kHundredFieldValue = 100;
static_assert(kTextOffset + kTextCapacity == kRecordSize);

// The request message: header and the descriptor of the whole arena.
struct StoreRequest {
    nk_message header;
    nk_arena_desc record;
};
static_assert(sizeof(StoreRequest) == 32 && offsetof(StoreRequest, record) == 24);

// The response: a bare header in a 32-byte message.
struct StoreResponse {
    nk_message header;
    std::uint8_t unused[8];
};
static_assert(sizeof(StoreResponse) == 32);

// Fills a record: time (negative values become 0), the two constant fields
// and the text with its NUL, cut to kTextCapacity - 1 bytes. Every other
// byte is zero.
void EncodeRecord(std::span<std::uint8_t, kRecordSize> record, std::int64_t time, std::string_view text) noexcept;

// Little-endian field access, independent of the host's byte order.
void StoreLe(std::uint8_t* at, std::uint64_t value, std::size_t size) noexcept;
std::uint64_t LoadLe(const std::uint8_t* at, std::size_t size) noexcept;

}  // namespace nos::logger::nvlog
