// Reading a command line of options with values, shared by the registry's
// host programs.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "session_text.h"

namespace update_registry {

// Every fault of the command line, with the reason.
class UsageError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// The handle operand `text` (see HandleFromText), at most `largest`. A value
// above it is refused, not cut: "handle 'TEXT' is above " and `limit`, which
// names the largest value and why.
inline std::uint32_t HandleOperand(const std::string& text, std::uint32_t largest, std::string_view limit)
{
    const std::optional<std::uint64_t> value = HandleFromText(text);
    if (!value)
        throw UsageError("bad handle '" + text + "'");
    if (*value > largest)
        throw UsageError("handle '" + text + "' is above " + std::string(limit));
    return static_cast<std::uint32_t>(*value);
}

class ArgumentReader {
public:
    ArgumentReader(int argc, char** argv) : m_arguments(argv + (argc > 0 ? 1 : 0), argv + (argc > 0 ? argc : 0)) {}

    bool Done() const noexcept { return m_next >= m_arguments.size(); }
    // True when the next argument is an option ("-..."), not an operand.
    bool AtOption() const noexcept { return !Done() && m_arguments[m_next].starts_with('-'); }
    std::string Next() { return Done() ? std::string() : m_arguments[m_next++]; }
    // The value after `option`; UsageError when there is none or it is empty.
    std::string Value(std::string_view option)
    {
        if (Done() || m_arguments[m_next].empty())
            throw UsageError(std::string(option) + " needs a value");
        return m_arguments[m_next++];
    }
    // What is left, taken.
    std::vector<std::string> Rest()
    {
        std::vector<std::string> rest(m_arguments.begin() + static_cast<std::ptrdiff_t>(m_next), m_arguments.end());
        m_next = m_arguments.size();
        return rest;
    }

private:
    std::vector<std::string> m_arguments;
    std::size_t m_next = 0;
};

}  // namespace update_registry
