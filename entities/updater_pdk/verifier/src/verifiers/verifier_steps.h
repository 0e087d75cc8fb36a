// The steps the two verifiers share. Every throw records the source file and
// line that the caller names: they are part of each verifier's contract,
// whatever file the code lives in.
#pragma once

#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <signature_verifier/update_verifier.h>

#include "common/utils/manage_exception.h"
#include "update/registry/ipc/registry.h"

namespace update::verifier::detail {

// Throws eka::ResultCodeException 0x80000046 "invalid handle" at (file, line)
// for the no-handle value 0xFFFFFFFF.
void RequireHandle(unsigned int handle, const char* file, int line);

// The registry's record of the session. A failing result throws
// eka::CheckResultFailedException carrying it, described as "Expression
// failed" followed by "failed get info from session registry".
update::registry::ipc::SessionInfo GetSession(const update::registry::ipc::IRegistry& registry, unsigned int handle,
                                              const char* file, int line);

// Throws eka::ResultCodeException 0x80000046 at (file, line), described by
// `text` formatted with the path's native text, when nothing is at `path`.
// Anything of any type (a directory too) counts; a dangling symbolic link is
// nothing. A status that cannot be read (a symbolic-link loop, a name too
// long, a folder that may not be searched) is no answer:
// std::filesystem::filesystem_error is thrown, with the system's own text.
void RequireExists(const std::filesystem::path& path, fmt::format_string<const std::string&> text, const char* file,
                   int line);

// Calls a peer operation that reports failure only by its result (the
// registry's GetInfo, the checker's GetHash and VerifyHash). An exception
// escaping it breaks that contract and ends the process.
template <typename Call>
auto NoThrowCall(Call&& call) noexcept
{
    return call();
}

// Runs `body` and turns whatever it throws into the result code of
// ManageException (which logs it); 0 when it returns.
template <typename Body>
int RunVerify(Body&& body) noexcept
{
    try {
        body();
        return 0;
    } catch (...) {
        return common::utils::ManageException("", "Verify");
    }
}

}  // namespace update::verifier::detail
