// Faults found while fuzzing the log-storage decoding, one test each.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "record_decoder.h"

namespace {

// A time whose year lies past INT_MAX - 1900: gmtime_r still gives a date,
// and forming the year from tm_year overflowed an int.
TEST(LogStorageFuzzRegressionTest, FormatLine_YearBeyondIntRangeIsPlainNumber)
{
    const std::int64_t time = std::int64_t{2147483647 + 1900LL - 100 - 1970} * 31556952;
    EXPECT_EQ(log_storage::FormatLine({time, "x"}), std::to_string(time) + " x\n");
}

}  // namespace
