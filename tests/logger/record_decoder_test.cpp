#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "record_decoder.h"
#include "vantor_logger/nvlog_record.h"

namespace {

namespace nvlog = nos::logger::nvlog;

std::vector<std::uint8_t> Message(std::uint16_t mid, std::uint32_t offset, std::uint32_t size)
{
    nvlog::StoreRequest request{};
    request.header.mid = mid;
    nk_msg_set_size(&request.header, sizeof(request));
    request.record = {offset, size};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&request);
    return {bytes, bytes + sizeof(request)};
}

std::vector<std::uint8_t> Arena(std::int64_t time, const std::string& text, std::size_t lead = 0)
{
    std::vector<std::uint8_t> arena(lead + nvlog::kRecordSize, 0xEE);
    nvlog::EncodeRecord(std::span<std::uint8_t, nvlog::kRecordSize>(arena.data() + lead, nvlog::kRecordSize), time,
                        text);
    return arena;
}

TEST(RecordDecoderTest, DecodeRequest_WellFormed)
{
    const auto arena = Arena(1700000000, "[verifier][info][main:48][1:1] a\x1b[92mOK\x1b[0m\n");
    const auto decoded = log_storage::DecodeRequest(Message(0, 0, 4120), arena);
    ASSERT_TRUE(decoded.record.has_value()) << decoded.error;
    EXPECT_EQ(decoded.record->time, 1700000000);
    EXPECT_EQ(decoded.record->text, "[verifier][info][main:48][1:1] a\x1b[92mOK\x1b[0m\n");

    // A record further into the arena, and a full 4,095-byte text.
    const auto shifted = Arena(5, std::string(5000, 'q'), 16);
    const auto far = log_storage::DecodeRequest(Message(0, 16, 4120), shifted);
    ASSERT_TRUE(far.record.has_value()) << far.error;
    EXPECT_EQ(far.record->text, std::string(4095, 'q'));
}

TEST(RecordDecoderTest, DecodeRequest_Malformed)
{
    const auto good = Arena(1, "x\n");
    auto noNul = good;
    std::memset(noNul.data() + nvlog::kTextOffset, 'z', nvlog::kTextCapacity);
    const std::vector<std::uint8_t> shortArena(100, 0);
    struct Case {
        const char* name;
        std::vector<std::uint8_t> message;
        std::vector<std::uint8_t> arena;
        std::string error;
    };
    const Case cases[] = {
        {"short message", std::vector<std::uint8_t>(24, 0), good, "request message of 24 bytes, expected 32"},
        {"empty message", {}, good, "request message of 0 bytes, expected 32"},
        {"method", Message(1, 0, 4120), good, "unknown method 1"},
        {"small record", Message(0, 0, 100), shortArena, "record of 100 bytes, expected 4120"},
        {"large record", Message(0, 0, 4121), std::vector<std::uint8_t>(4121, 0), "record of 4121 bytes, expected 4120"},
        {"beyond arena", Message(0, 0, 4120), shortArena,
         "record at offset 0 of 4120 bytes lies outside the 100-byte arena"},
        {"offset overflow", Message(0, 0xFFFFFFFFu, 4120), good,
         "record at offset 4294967295 of 4120 bytes lies outside the 4120-byte arena"},
        {"size overflow", Message(0, 8, 0xFFFFFFFFu), good,
         "record at offset 8 of 4294967295 bytes lies outside the 4120-byte arena"},
        {"no NUL", Message(0, 0, 4120), noNul, "record text without a terminating NUL"},
    };
    for (const Case& c : cases) {
        const auto decoded = log_storage::DecodeRequest(c.message, c.arena);
        EXPECT_FALSE(decoded.record.has_value()) << c.name;
        EXPECT_EQ(decoded.error, c.error) << c.name;
    }
}

TEST(RecordDecoderTest, FormatLine_TimeThenText)
{
    struct Case {
        std::int64_t time;
        std::string_view text;
        std::string line;
    };
    const Case cases[] = {
        {0, "start\n", "1970-01-01T00:00:00Z start\n"},
        {1700000000, "no line end", "2023-11-14T22:13:20Z no line end\n"},
        {86399, "", "1970-01-01T23:59:59Z \n"},
        {1, std::string_view("tab\tesc\x1b\r\n", 10), "1970-01-01T00:00:01Z tab\tesc\x1b\r\n"},
        {-1, "x\n", "1969-12-31T23:59:59Z x\n"},
        {INT64_MAX, "x\n", "9223372036854775807 x\n"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(log_storage::FormatLine({c.time, c.text}), c.line) << c.time;
}

}  // namespace
