#include "update/verifier/applist_verifier.h"

#include <filesystem>
#include <utility>

#include "eka/exception.h"
#include "eka/result_code.h"
#include "eka/throw.h"
#include "nos/logger/nos_logger.h"
#include "update/common.h"
#include "verifier_steps.h"

namespace update::verifier {
namespace {
// The source locations of this verifier's throws and its log line.
constexpr const char* kFile = "entities/updater_pdk/verifier/src/verifiers/applist_verifier";
constexpr int kEmptyRegistryLine = 31;
constexpr int kEmptyVerifierLine = 32;
constexpr int kInvalidHandleLine = 38;
constexpr int kGetInfoLine = 41;
constexpr int kNoListLine = 48;
constexpr int kNoSignatureLine = 49;
constexpr int kVerifyLine = 51;
constexpr int kSucceededLine = 54;
}  // namespace

namespace detail {
namespace {

// Returns when the signature holds, after the success line; throws otherwise.
void CheckAppList(const update::registry::ipc::IRegistry& registry,
                  signature_verifier::wrapper::ISignatureVerifier& checker, unsigned int handle)
{
    RequireHandle(handle, kFile, kInvalidHandleLine);
    const update::registry::ipc::SessionInfo info = GetSession(registry, handle, kFile, kGetInfoLine);

    const std::filesystem::path packagePath = update::GetPackagePath(info);
    const std::filesystem::path listPath = packagePath / update::GetAppListFileName();
    const std::filesystem::path signaturePath = packagePath / update::GetAppListSignatureName();
    RequireExists(listPath, "AppList file doesn't exist {}", kFile, kNoListLine);
    RequireExists(signaturePath, "AppList signature file doesn't exist {}", kFile, kNoSignatureLine);

    const int rc = checker.Verify(listPath, signaturePath);
    if (eka::Failed(rc))
        eka::Throw(kFile, kVerifyLine,
                   eka::CheckResultFailedException(rc, u"Expression failed")
                       << "Failed to verify AppList file " << listPath << " with signature file " << signaturePath);

    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, kSucceededLine, "Verify",
                              "AppList file {} verification with signature file {} was succeeded",
                              listPath.generic_string(), signaturePath.generic_string());
}

}  // namespace
}  // namespace detail

ApplistVerifier::ApplistVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                                 std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker)
    : PackageVerifier(std::move(sessionRegistry), std::move(signatureChecker), kFile, kEmptyRegistryLine,
                      kEmptyVerifierLine)
{
}

int ApplistVerifier::Verify(unsigned int handle) const noexcept
{
    return detail::RunVerify([&] { detail::CheckAppList(*registry, *verifier, handle); });
}
}  // namespace update::verifier
