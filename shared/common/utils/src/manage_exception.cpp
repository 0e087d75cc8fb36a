#include "common/utils/manage_exception.h"

#include <exception>

#include "eka/exception.h"
#include "eka/text.h"
#include "nos/logger/nos_logger.h"

namespace common::utils {
namespace {
constexpr const char* kFile = "shared/common/utils/manage_exception";
constexpr const char* kFunction = "ManageException";
// Fixed locations of the three records: the log storage's lines show them.
constexpr int kEkaLine = 27;
constexpr int kStandardLine = 32;
constexpr int kUnknownLine = 37;
using nos::logger::LogIfEnabled;
using nos::logger::LogLevel;
}  // namespace

// noexcept: anything thrown while logging or converting ends the process.
int ManageException(std::string_view context, std::string_view operation) noexcept
{
    const std::exception_ptr current = std::current_exception();
    if (!current)
        return eka::result::NoCurrentException;
    try {
        std::rethrow_exception(current);
    } catch (const eka::Exception& e) {
        if (nos::logger::NOSLogger::RootLogger().IsEnabled(LogLevel::Error)) {
            LogIfEnabled(LogLevel::Error, kFile, kEkaLine, kFunction, "{}: {} ; detailed: exception during: {}",
                         context, eka::text::Utf16ToUtf8(e.full_description()), operation);
        }
        return eka::ResultCodeOf(e);
    } catch (const std::exception& e) {
        LogIfEnabled(LogLevel::Error, kFile, kStandardLine, kFunction, "{}: {} ; detailed: exception during {}",
                     context, e.what(), operation);
        return eka::result::UnspecifiedError;
    } catch (...) {
        // Of an object of unknown type only the fact can be told.
        LogIfEnabled(LogLevel::Error, kFile, kUnknownLine, kFunction,
                     "{}: detailed: Unknown exception type during {}", context, operation);
        return eka::result::UnknownException;
    }
}

}  // namespace common::utils
