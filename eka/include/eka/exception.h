// Exceptions that carry result codes and free text.
//
// Every exception records the source file (a static string: the path from
// the source root without extension) and the line where it was thrown; use
// eka::Throw from "eka/throw.h" to fill them in. Descriptions are UTF-16 and
// may be built by streaming into the exception before it is thrown.
#pragma once

#include <concepts>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "eka/error_info.h"
#include "eka/result_code.h"

namespace eka {

class Exception;

class exception : public std::exception {
public:
    // Stores one typed property in the exception's error-information record,
    // creating the record on first use.
    template <typename T>
    static void set_error_info(Exception& target, const error_info::PropInfo<T>& property);
};

class Exception : public exception {
public:
    Exception() = default;
    explicit Exception(std::u16string description);
    // UTF-8 text, converted.
    explicit Exception(std::string_view description);

    const char* what() const noexcept override;

    // Null when the thrower gave none.
    const char* file() const noexcept { return m_file; }
    int line() const noexcept { return m_line; }
    void set_location(const char* file, int line) noexcept;

    const std::u16string& description() const noexcept { return m_description; }

    // The text that loggers print. Here it is the description.
    virtual std::u16string full_description() const;

    // Null until a property is stored. Copies of an exception share it.
    const error_info::Record* error_info() const noexcept { return m_errorInfo.get(); }
    error_info::Record& error_info_for_update();

    // A heap copy of the most-derived object, and its rethrow.
    virtual std::unique_ptr<Exception> Clone() const;
    [[noreturn]] virtual void Rethrow() const;

protected:
    // Streaming appends to the description of an exception that is already
    // built (often a temporary about to be thrown), so the text is mutable.
    void AppendToDescription(std::u16string_view text) const;

private:
    const char* m_file = nullptr;
    int m_line = 0;
    std::shared_ptr<error_info::Record> m_errorInfo;
    mutable std::u16string m_description;
};

template <typename T>
void exception::set_error_info(Exception& target, const error_info::PropInfo<T>& property)
{
    target.error_info_for_update().Set(property);
}

// Gives a concrete exception class its Clone and Rethrow.
template <typename Derived, typename Base>
class ExceptionBase : public Base {
public:
    using Base::Base;

    std::unique_ptr<Exception> Clone() const override
    {
        return std::make_unique<Derived>(static_cast<const Derived&>(*this));
    }

    [[noreturn]] void Rethrow() const override { throw static_cast<const Derived&>(*this); }
};

class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
public:
    explicit ResultCodeException(result_t code, std::u16string description = {});
    ResultCodeException(result_t code, std::string_view description);

    const char* what() const noexcept override;
    result_t result() const noexcept { return m_result; }

    // The description, ": " when it is not empty, then the code and its
    // message: "invalid riid: 0x80000071 (Invalid result)".
    std::u16string full_description() const override;

private:
    result_t m_result;
};

// A call returned a failing code.
class CheckResultFailedException : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
public:
    explicit CheckResultFailedException(result_t code, std::u16string description = {});
    CheckResultFailedException(result_t code, std::string_view description);

    const char* what() const noexcept override;

    // Append narrow (UTF-8) text or a path's native text to the description.
    const CheckResultFailedException& operator<<(const char* text) const;
    const CheckResultFailedException& operator<<(std::string_view text) const;
    const CheckResultFailedException& operator<<(const std::string& text) const;
    const CheckResultFailedException& operator<<(const std::filesystem::path& path) const;
};

// Integer types streamed as decimal numbers; character types are not integers here.
template <typename T>
concept StreamedAsNumber = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char> &&
                           !std::same_as<T, wchar_t> && !std::same_as<T, char8_t> && !std::same_as<T, char16_t> &&
                           !std::same_as<T, char32_t>;

// A checked condition is false. Carries no result code of its own.
class CheckFailedException : public ExceptionBase<CheckFailedException, Exception> {
public:
    using ExceptionBase::ExceptionBase;

    const char* what() const noexcept override;

    const CheckFailedException& operator<<(const char16_t* text) const;
    const CheckFailedException& operator<<(std::u16string_view text) const;

    // Every integer width, unsigned char and signed char included, is
    // written as a decimal number, never as a character.
    template <StreamedAsNumber T>
    const CheckFailedException& operator<<(T value) const
    {
        if constexpr (std::is_signed_v<T>)
            return AppendNumber(static_cast<long long>(value));
        else
            return AppendNumber(static_cast<unsigned long long>(value));
    }

private:
    const CheckFailedException& AppendNumber(long long value) const;
    const CheckFailedException& AppendNumber(unsigned long long value) const;
};

// The code of an exception, by the first rule that matches: a result-code
// exception gives its own code when it is a failure and "Exception with
// successful result code" otherwise; any other exception of this family
// gives "Exception has no result code".
result_t ResultCodeOf(const Exception& exception) noexcept;

}  // namespace eka
