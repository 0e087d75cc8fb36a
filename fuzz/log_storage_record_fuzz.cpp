// Fuzz target: the log-storage entity's request decoding and line
// formatting, over any received message and arena.
//
// Input: the message length (1 byte, taken modulo 41), the message bytes,
// then the arena bytes.
//
// Checks that a request is accepted exactly when it names, with the store
// method, a whole 4,120-byte record inside the arena whose text has its NUL,
// with the exact reason otherwise; that the text and time are those of the
// record; that the sender's encoder makes a record that decodes back to the
// same text and time; and that the line is the time (a calendar date that
// converts back to it, or the plain number) and the text, ending in one line
// end.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fuzz_support.h"
#include "record_decoder.h"
#include "vantor_logger/nvlog_record.h"

namespace {

namespace nvlog = nos::logger::nvlog;

// The reason a request must be refused for, or "" when it must be accepted.
std::string ExpectedRefusal(const std::vector<std::uint8_t>& message, const std::vector<std::uint8_t>& arena)
{
    if (message.size() < 32)
        return fmt::format("request message of {} bytes, expected 32", message.size());
    const std::uint16_t mid = fuzz::LoadU16(message.data() + 2);
    if (mid != 0)
        return fmt::format("unknown method {}", mid);
    const std::uint64_t offset = fuzz::LoadU32(message.data() + 24);
    const std::uint64_t size = fuzz::LoadU32(message.data() + 28);
    if (offset + size > arena.size())
        return fmt::format("record at offset {} of {} bytes lies outside the {}-byte arena", offset, size,
                           arena.size());
    if (size != 4120)
        return fmt::format("record of {} bytes, expected 4120", size);
    if (std::memchr(arena.data() + offset + 24, '\0', 4096) == nullptr)
        return "record text without a terminating NUL";
    return "";
}

void CheckLine(const log_storage::Record& record)
{
    const std::string line = log_storage::FormatLine(record);
    FUZZ_CHECK(!line.empty() && line.back() == '\n');
    const std::size_t blank = line.find(' ');
    FUZZ_CHECK(blank != std::string::npos);
    const std::string stamp = line.substr(0, blank);
    std::string rest = line.substr(blank + 1);
    if (record.text.empty() || record.text.back() != '\n')
        FUZZ_CHECK(rest == std::string(record.text) + "\n");
    else
        FUZZ_CHECK(rest == record.text);

    if (stamp == std::to_string(record.time))
        return;
    std::tm utc{};
    FUZZ_CHECK(stamp.size() == 20);
    const char* end = strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    FUZZ_CHECK(end != nullptr && *end == '\0');
    FUZZ_CHECK(static_cast<std::int64_t>(timegm(&utc)) == record.time);
}

void CheckReencodes(const log_storage::Record& record)
{
    std::vector<std::uint8_t> arena(nvlog::kRecordSize);
    nvlog::EncodeRecord(std::span<std::uint8_t, nvlog::kRecordSize>(arena.data(), nvlog::kRecordSize), record.time,
                        record.text);
    nvlog::StoreRequest request{};
    request.record.offset = 0;
    request.record.size = nvlog::kRecordSize;
    std::vector<std::uint8_t> message(sizeof request);
    std::memcpy(message.data(), &request, sizeof request);
    const log_storage::Decoded again = log_storage::DecodeRequest(message, arena);
    FUZZ_CHECK(again.record.has_value());
    FUZZ_CHECK(again.record->text == record.text);
    FUZZ_CHECK(again.record->time == (record.time < 0 ? 0 : record.time));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Reader in(data, size);
    const std::size_t messageLength = in.Byte() % 41;
    const std::vector<std::uint8_t> message = in.Bytes(std::min(messageLength, in.Remaining()));
    const std::vector<std::uint8_t> arena = in.Rest();

    const log_storage::Decoded decoded = log_storage::DecodeRequest(message, arena);
    const std::string refusal = ExpectedRefusal(message, arena);
    if (!refusal.empty()) {
        FUZZ_CHECK(!decoded.record.has_value());
        FUZZ_CHECK(decoded.error == refusal);
        return 0;
    }
    FUZZ_CHECK(decoded.record.has_value() && decoded.error.empty());
    const log_storage::Record& record = *decoded.record;
    const std::size_t offset = fuzz::LoadU32(message.data() + 24);
    FUZZ_CHECK(reinterpret_cast<const std::uint8_t*>(record.text.data()) == arena.data() + offset + 24);
    FUZZ_CHECK(record.text.size() < 4096 && record.text.find('\0') == std::string_view::npos);
    FUZZ_CHECK(arena[offset + 24 + record.text.size()] == 0);
    std::int64_t time = 0;
    std::memcpy(&time, arena.data() + offset + 8, sizeof time);
    FUZZ_CHECK(record.time == time);
    CheckLine(record);
    CheckReencodes(record);
    return 0;
}
