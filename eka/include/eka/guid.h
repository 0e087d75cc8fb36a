// The framework's 16-byte identifier (update session ids, among others).
// The bytes are kept as they travel on the wire; no byte order is implied.
#pragma once

#include <array>
#include <cstdint>

namespace eka {

struct guid_t {
    std::array<std::uint8_t, 16> bytes{};

    friend bool operator==(const guid_t&, const guid_t&) = default;
};

static_assert(sizeof(guid_t) == 16, "an identifier is exactly 16 bytes");

}  // namespace eka
