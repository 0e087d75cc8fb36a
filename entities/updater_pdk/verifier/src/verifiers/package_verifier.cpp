#include <string>
#include <utility>

#include "eka/exception.h"
#include "eka/result_code.h"
#include "eka/throw.h"
#include "update/verifier/package_verifier.h"
#include "verifier_steps.h"

namespace update::verifier::detail {
namespace {
// Throws eka::ResultCodeException 0x80000046 with `description` at (file,
// line) unless `present`.
void RequireOwner(bool present, const char16_t* description, const char* file, int line)
{
    if (!present)
        eka::Throw<eka::ResultCodeException>(file, line, eka::result::InvalidArgument, std::u16string(description));
}

bool Exists(const std::filesystem::path& path)
{
    const std::filesystem::file_type type = std::filesystem::status(path).type();
    return type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::none;
}

}  // namespace

void RequireHandle(unsigned int handle, const char* file, int line)
{
    if (handle == update::registry::ipc::kNoHandle)
        eka::Throw<eka::ResultCodeException>(file, line, eka::result::InvalidArgument, u"invalid handle");
}

update::registry::ipc::SessionInfo GetSession(const update::registry::ipc::IRegistry& registry, unsigned int handle,
                                              const char* file, int line)
{
    update::registry::ipc::SessionInfo info;
    const int rc = NoThrowCall([&] { return registry.GetInfo(handle, info); });
    if (eka::Failed(rc))
        eka::Throw(file, line,
                   eka::CheckResultFailedException(rc, u"Expression failed") << "failed get info from session registry");
    return info;
}

void RequireExists(const std::filesystem::path& path, fmt::format_string<const std::string&> text, const char* file,
                   int line)
{
    if (!Exists(path))
        eka::Throw<eka::ResultCodeException>(file, line, eka::result::InvalidArgument,
                                             std::string_view(fmt::format(text, path.native())));
}

}  // namespace update::verifier::detail

namespace update::verifier {

PackageVerifier::PackageVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                                 std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker,
                                 const char* file, int emptyRegistryLine, int emptyVerifierLine)
    : registry(std::move(sessionRegistry)), verifier(std::move(signatureChecker))
{
    detail::RequireOwner(registry != nullptr, u"empty registry", file, emptyRegistryLine);
    detail::RequireOwner(verifier != nullptr, u"empty verifier", file, emptyVerifierLine);
}

}  // namespace update::verifier
