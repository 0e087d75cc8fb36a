#include "eka/exception.h"

#include <string>

#include "eka/text.h"

namespace eka {

Exception::Exception(std::u16string description) : m_description(std::move(description)) {}

Exception::Exception(std::string_view description) : m_description(text::Utf8ToUtf16(description)) {}

const char* Exception::what() const noexcept { return "Exception"; }

void Exception::set_location(const char* file, int line) noexcept
{
    m_file = file;
    m_line = line;
}

std::u16string Exception::full_description() const { return m_description; }

error_info::Record& Exception::error_info_for_update()
{
    if (!m_errorInfo)
        m_errorInfo = std::make_shared<error_info::Record>();
    return *m_errorInfo;
}

std::unique_ptr<Exception> Exception::Clone() const { return std::make_unique<Exception>(*this); }

void Exception::Rethrow() const { throw *this; }

void Exception::AppendToDescription(std::u16string_view text) const { m_description.append(text); }

ResultCodeException::ResultCodeException(result_t code, std::u16string description)
    : ExceptionBase(std::move(description)), m_result(code)
{
}

ResultCodeException::ResultCodeException(result_t code, std::string_view description)
    : ExceptionBase(description), m_result(code)
{
}

const char* ResultCodeException::what() const noexcept { return "ResultCodeException"; }

std::u16string ResultCodeException::full_description() const
{
    std::u16string text = description();
    if (!text.empty())
        text.append(u": ");
    text.append(text::Utf8ToUtf16(FormatResultCode(m_result)));
    return text;
}

CheckResultFailedException::CheckResultFailedException(result_t code, std::u16string description)
    : ExceptionBase(code, std::move(description))
{
}

CheckResultFailedException::CheckResultFailedException(result_t code, std::string_view description)
    : ExceptionBase(code, description)
{
}

const char* CheckResultFailedException::what() const noexcept { return "CheckResultFailedException"; }

const CheckResultFailedException& CheckResultFailedException::operator<<(const char* text) const
{
    return *this << std::string_view(text == nullptr ? "" : text);
}

const CheckResultFailedException& CheckResultFailedException::operator<<(std::string_view text) const
{
    AppendToDescription(text::Utf8ToUtf16(text));
    return *this;
}

const CheckResultFailedException& CheckResultFailedException::operator<<(const std::string& text) const
{
    return *this << std::string_view(text);
}

const CheckResultFailedException& CheckResultFailedException::operator<<(const std::filesystem::path& path) const
{
    return *this << std::string_view(path.native());
}

const char* CheckFailedException::what() const noexcept { return "CheckFailedException"; }

const CheckFailedException& CheckFailedException::operator<<(const char16_t* text) const
{
    if (text != nullptr)
        AppendToDescription(text);
    return *this;
}

const CheckFailedException& CheckFailedException::operator<<(std::u16string_view text) const
{
    AppendToDescription(text);
    return *this;
}

const CheckFailedException& CheckFailedException::AppendNumber(long long value) const
{
    return *this << text::Utf8ToUtf16(std::to_string(value));
}

const CheckFailedException& CheckFailedException::AppendNumber(unsigned long long value) const
{
    return *this << text::Utf8ToUtf16(std::to_string(value));
}

result_t ResultCodeOf(const Exception& exception) noexcept
{
    if (const auto* withCode = dynamic_cast<const ResultCodeException*>(&exception)) {
        const result_t code = withCode->result();
        return Failed(code) ? code : result::ExceptionWithSuccessfulResultCode;
    }
    return result::ExceptionHasNoResultCode;
}

}  // namespace eka
