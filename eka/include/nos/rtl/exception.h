// The platform runtime's exception, thrown by failed checks of the IPC
// framework, and the helpers that build it:
//
//   using namespace nos::rtl;
//   details::ExceptionHelper(0x9000000D, SourceLocation("component/fdn/ipc/server", "Server", 68))
//       | details::Streamer() << "Boolean expression \"m_entity\" is false";
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace nos::rtl {

using Result = std::int32_t;

// Where an exception was thrown. The strings must be static text: the
// throwers record fixed names, not the compiler's.
class SourceLocation {
public:
    constexpr SourceLocation() noexcept = default;
    constexpr SourceLocation(const char* file, const char* function, std::uint_least32_t line,
                             std::uint_least32_t column = 0) noexcept
        : m_file(file != nullptr ? file : ""), m_function(function != nullptr ? function : ""), m_line(line),
          m_column(column)
    {
    }

    constexpr const char* file_name() const noexcept { return m_file; }
    constexpr const char* function_name() const noexcept { return m_function; }
    constexpr std::uint_least32_t line() const noexcept { return m_line; }
    constexpr std::uint_least32_t column() const noexcept { return m_column; }

private:
    const char* m_file = "";
    const char* m_function = "";
    std::uint_least32_t m_line = 0;
    std::uint_least32_t m_column = 0;
};

class Exception : public std::exception {
public:
    Exception(std::string_view message, Result result, const SourceLocation& location);
    Exception(Result result, const SourceLocation& location);
    // Copies share the message text.
    Exception(const Exception&) noexcept = default;
    Exception& operator=(const Exception&) noexcept = default;
    ~Exception() override = default;

    const char* what() const noexcept override { return m_message->c_str(); }
    Result GetResult() const noexcept { return m_result; }
    const SourceLocation& GetLocation() const noexcept { return m_location; }

private:
    SourceLocation m_location;
    Result m_result;
    std::shared_ptr<const std::string> m_message;
};

namespace details {

// Collects the message text of an exception about to be thrown.
class Streamer {
public:
    template <typename T>
    Streamer& operator<<(const T& value)
    {
        m_stream << value;
        return *this;
    }

    std::string str() const { return m_stream.str(); }

private:
    std::ostringstream m_stream;
};

// Holds the result and location; `helper | Streamer() << ...` throws.
class ExceptionHelper {
public:
    ExceptionHelper(Result result, const SourceLocation& location) noexcept : m_result(result), m_location(location)
    {
    }

    [[noreturn]] void operator|(const Streamer& message) const;

private:
    Result m_result;
    SourceLocation m_location;
};

// Throws "Boolean expression \"<expression>\" is false" unless `value` holds.
void CheckBoolean(bool value, std::string_view expression, Result result, const SourceLocation& location);

}  // namespace details
}  // namespace nos::rtl
