#include "nos/rtl/exception.h"

namespace nos::rtl {

Exception::Exception(std::string_view message, Result result, const SourceLocation& location)
    : m_location(location), m_result(result), m_message(std::make_shared<const std::string>(message))
{
}

Exception::Exception(Result result, const SourceLocation& location)
    : m_location(location), m_result(result), m_message(std::make_shared<const std::string>())
{
}

namespace details {

void ExceptionHelper::operator|(const Streamer& message) const { throw Exception(message.str(), m_result, m_location); }

void CheckBoolean(bool value, std::string_view expression, Result result, const SourceLocation& location)
{
    if (!value)
        ExceptionHelper(result, location) | Streamer() << "Boolean expression \"" << expression << "\" is false";
}

}  // namespace details
}  // namespace nos::rtl
