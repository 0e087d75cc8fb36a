// Decoding of the log-storage requests. Pure functions: no I/O, no state.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace log_storage {

struct Record {
    std::int64_t time;      // seconds since the epoch, as sent
    std::string_view text;  // up to its NUL, control characters kept
};

struct Decoded {
    std::optional<Record> record;
    std::string error;  // why there is no record
};

// Decodes one request: `message` holds the received message (at most the
// bytes its size word names), `arena` the received arena bytes. The request
// must use the store method and name, within the arena, one record of
// exactly 4,120 bytes whose text ends in a NUL. The record's text points
// into `arena`.
Decoded DecodeRequest(std::span<const std::uint8_t> message, std::span<const std::uint8_t> arena);

// The output line of a record: its time (UTC, "2024-05-01T12:00:00Z"; the
// plain number when it has no calendar date), a blank, then the text, with
// a line end added when the text has none.
std::string FormatLine(const Record& record);

}  // namespace log_storage
