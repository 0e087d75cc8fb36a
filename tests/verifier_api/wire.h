// Byte-level views of the Verify request and reply, built independently of
// the structures under test.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>

#include "verifier_api/messages.h"

namespace verifier_api_test {

using Bytes32 = std::array<std::uint8_t, 32>;

inline void PutLe16(Bytes32& bytes, std::size_t at, std::uint16_t value)
{
    bytes[at] = static_cast<std::uint8_t>(value);
    bytes[at + 1] = static_cast<std::uint8_t>(value >> 8);
}

inline void PutLe32(Bytes32& bytes, std::size_t at, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// A request whose header bytes other than the indexes hold noise, so that a
// reader of the wrong bytes shows.
inline nv_Verifier_component_req MakeRequest(std::uint16_t riid, std::uint16_t mid, std::uint32_t handleWord)
{
    Bytes32 bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(0xA0 + i);
    PutLe16(bytes, 0, riid);
    PutLe16(bytes, 2, mid);
    PutLe32(bytes, 24, handleWord);
    nv_Verifier_component_req req;
    std::memset(&req, 0x5A, sizeof req);
    std::memcpy(&req, bytes.data(), bytes.size());
    return req;
}

// What a reply buffer held before the call: every byte 0xCC.
inline constexpr std::uint8_t kNoise = 0xCC;

template <typename T>
Bytes32 BytesOf(const T& value)
{
    static_assert(sizeof(T) >= 32);
    Bytes32 bytes;
    std::memcpy(bytes.data(), &value, bytes.size());
    return bytes;
}

inline Bytes32 NoiseBytes()
{
    Bytes32 bytes;
    bytes.fill(kNoise);
    return bytes;
}

}  // namespace verifier_api_test
