#include "vantor_logger/nvlog_record.h"

#include <algorithm>
#include <cstring>

namespace nos::logger::nvlog {

void StoreLe(std::uint8_t* at, std::uint64_t value, std::size_t size) noexcept
{
    for (std::size_t i = 0; i < size; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint64_t LoadLe(const std::uint8_t* at, std::size_t size) noexcept
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value |= static_cast<std::uint64_t>(at[i]) << (8 * i);
    return value;
}

void EncodeRecord(std::span<std::uint8_t, kRecordSize> record, std::int64_t time, std::string_view text) noexcept
{
    std::memset(record.data(), 0, record.size());
    StoreLe(record.data() + kTimeOffset, static_cast<std::uint64_t>(std::max<std::int64_t>(time, 0)), 8);
    StoreLe(record.data() + kZeroFieldOffset, kZeroFieldValue, 4);
    StoreLe(record.data() + kHundredFieldOffset, kHundredFieldValue, 4);
    const std::size_t length = std::min(text.size(), kTextCapacity - 1);
    std::memcpy(record.data() + kTextOffset, text.data(), length);
    // The byte after the text is already the NUL.
}

}  // namespace nos::logger::nvlog
