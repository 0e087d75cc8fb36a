#include "update/verifier/product_verifier.h"

#include <filesystem>
#include <utility>
#include <vector>

#include "eka/exception.h"
#include "eka/result_code.h"
#include "eka/throw.h"
#include "nos/logger/nos_logger.h"
#include "update/common.h"
#include "verifier_steps.h"

namespace update::verifier {
namespace {
// The source locations of this verifier's throws and its log line.
constexpr const char* kFile = "entities/updater_pdk/verifier/src/verifiers/product_verifier";
constexpr int kEmptyRegistryLine = 32;
constexpr int kEmptyVerifierLine = 33;
constexpr int kInvalidHandleLine = 40;
constexpr int kGetInfoLine = 43;
constexpr int kNoArchiveLine = 49;
constexpr int kNoSignatureLine = 50;
constexpr int kGetHashLine = 53;
constexpr int kVerifyHashLine = 54;
constexpr int kSucceededLine = 57;
}  // namespace

namespace detail {
namespace {

// Returns when the signature holds, after the success line; throws otherwise.
void CheckProduct(const update::registry::ipc::IRegistry& registry,
                  signature_verifier::wrapper::ISignatureVerifier& checker, unsigned int handle)
{
    RequireHandle(handle, kFile, kInvalidHandleLine);
    const update::registry::ipc::SessionInfo info = GetSession(registry, handle, kFile, kGetInfoLine);

    const std::filesystem::path packagePath = update::GetPackagePath(info);
    const std::filesystem::path archivePath = packagePath / update::GetUpdateArchiveName();
    const std::filesystem::path signaturePath = packagePath / update::GetUpdateSignatureName();
    RequireExists(archivePath, "update archive file doesn't exist {}", kFile, kNoArchiveLine);
    RequireExists(signaturePath, "update signature file doesn't exist {}", kFile, kNoSignatureLine);

    // The archive is read once, here; only its hash goes to the entity.
    std::vector<unsigned char> hash;
    int rc = NoThrowCall([&] { return checker.GetHash(archivePath, hash); });
    if (eka::Failed(rc))
        eka::Throw(kFile, kGetHashLine,
                   eka::CheckResultFailedException(rc, u"Expression failed") << "failed get update file hash");
    rc = NoThrowCall([&] { return checker.VerifyHash(hash, signaturePath); });
    if (eka::Failed(rc))
        eka::Throw(kFile, kVerifyHashLine,
                   eka::CheckResultFailedException(rc, u"Expression failed")
                       << "Failed to verify update file " << archivePath << " with signature file " << signaturePath);

    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, kSucceededLine, "Verify",
                              "Update file {} verification with signature file {} was succeeded",
                              archivePath.generic_string(), signaturePath.generic_string());
}

}  // namespace
}  // namespace detail

ProductVerifier::ProductVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                                 std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker)
    : PackageVerifier(std::move(sessionRegistry), std::move(signatureChecker), kFile, kEmptyRegistryLine,
                      kEmptyVerifierLine)
{
}

int ProductVerifier::Verify(unsigned int handle) const noexcept
{
    return detail::RunVerify([&] { detail::CheckProduct(*registry, *verifier, handle); });
}
}  // namespace update::verifier
