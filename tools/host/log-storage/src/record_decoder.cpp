#include "record_decoder.h"

#include <cstdint>
#include <cstring>
#include <ctime>

#include <fmt/format.h>
#include <nos/message.h>

#include "vantor_logger/nvlog_record.h"

namespace log_storage {
namespace {

namespace nvlog = nos::logger::nvlog;

Decoded Fail(std::string reason) { return Decoded{std::nullopt, std::move(reason)}; }

}  // namespace

Decoded DecodeRequest(std::span<const std::uint8_t> message, std::span<const std::uint8_t> arena)
{
    if (message.size() < sizeof(nvlog::StoreRequest))
        return Fail(fmt::format("request message of {} bytes, expected {}", message.size(),
                                sizeof(nvlog::StoreRequest)));
    nvlog::StoreRequest request;
    std::memcpy(&request, message.data(), sizeof(request));
    if (request.header.mid != nvlog::kStoreMethod)
        return Fail(fmt::format("unknown method {}", request.header.mid));

    const std::uint64_t offset = request.record.offset;
    const std::uint64_t size = request.record.size;
    if (offset > arena.size() || size > arena.size() - offset)
        return Fail(fmt::format("record at offset {} of {} bytes lies outside the {}-byte arena", offset, size,
                                arena.size()));
    if (size != nvlog::kRecordSize)
        return Fail(fmt::format("record of {} bytes, expected {}", size, nvlog::kRecordSize));

    const std::uint8_t* bytes = arena.data() + offset;
    const auto* text = reinterpret_cast<const char*>(bytes + nvlog::kTextOffset);
    const void* nul = std::memchr(text, '\0', nvlog::kTextCapacity);
    if (nul == nullptr)
        return Fail("record text without a terminating NUL");
    const auto time = static_cast<std::int64_t>(nvlog::LoadLe(bytes + nvlog::kTimeOffset, 8));
    return Decoded{Record{time, std::string_view(text, static_cast<std::size_t>(static_cast<const char*>(nul) - text))},
                   {}};
}

std::string FormatLine(const Record& record)
{
    std::string line;
    std::tm utc{};
    const auto seconds = static_cast<std::time_t>(record.time);
    // tm_year may be as large as INT_MAX: the year is formed in 64 bits.
    const bool dated = gmtime_r(&seconds, &utc) != nullptr;
    const std::int64_t year = std::int64_t{utc.tm_year} + 1900;
    if (dated && year >= 0 && year <= 9999)
        line = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z ", year, utc.tm_mon + 1, utc.tm_mday,
                           utc.tm_hour, utc.tm_min, utc.tm_sec);
    else
        line = fmt::format("{} ", record.time);
    line.append(record.text);
    if (record.text.empty() || record.text.back() != '\n')
        line.push_back('\n');
    return line;
}

}  // namespace log_storage
