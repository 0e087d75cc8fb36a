#include "shared_log_function_for_entity/entity_logger.h"

#include "nos/logger/nos_logger.h"

namespace nos::logger {
namespace {
constexpr const char* kFile = "shared/common/shared_log_function_for_entity";
constexpr const char* kFunction = "EntityLogger";
constexpr int kErrorLine = 12;
constexpr int kInfoLine = 15;
}  // namespace

void EntityLogger(std::string_view message, bool isError)
{
    NOSLogger& root = NOSLogger::RootLogger();
    const fmt::string_view format(message.data(), message.size());
    if (isError) {
        if (root.IsEnabled(LogLevel::Error))
            root.Log(LogLevel::Error, kFile, kErrorLine, kFunction, format);
    } else if (root.IsEnabled(LogLevel::Info)) {
        root.Log(LogLevel::Info, kFile, kInfoLine, kFunction, format);
    }
}

}  // namespace nos::logger
