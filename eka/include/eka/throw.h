// One-line throws that record the thrower's source file and line.
//
//   eka::Throw<eka::ResultCodeException>("shared/update/common/src/common", 54,
//                                        0x80000071, u"empty package folder");
//   eka::Throw("entities/updater_pdk/verifier/src/verifiers/applist_verifier", 41,
//              eka::CheckResultFailedException(rc) << "failed get info from session registry");
//
// `file` must be static text (a literal): the exception keeps the pointer.
// A result-code exception also gets its code stored under "eka.result" in
// its error-information record.
#pragma once

#include <concepts>
#include <type_traits>
#include <utility>

#include "eka/exception.h"

namespace eka {

template <typename E>
    requires std::derived_from<std::remove_cvref_t<E>, Exception>
[[noreturn]] void Throw(const char* file, int line, E&& prepared)
{
    using Thrown = std::remove_cvref_t<E>;
    Thrown thrown(std::forward<E>(prepared));
    thrown.set_location(file, line);
    if constexpr (std::derived_from<Thrown, ResultCodeException>)
        exception::set_error_info(thrown, error_info::Make(error_info::Result, thrown.result()));
    throw thrown;
}

template <typename E, typename... Args>
    requires std::derived_from<E, Exception> && std::constructible_from<E, Args...>
[[noreturn]] void Throw(const char* file, int line, Args&&... args)
{
    Throw(file, line, E(std::forward<Args>(args)...));
}

}  // namespace eka
