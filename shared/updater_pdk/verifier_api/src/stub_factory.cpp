#include "verifier_api/stub_factory.h"

#include <utility>

#include "eka/result_code.h"
#include "eka/throw.h"
#include "verifier_api/stub.h"

namespace update::verifier::ipc {
namespace {
constexpr const char* kFile = "shared/updater_pdk/verifier_api/src/stub_factory";
constexpr int kEmptyVerifierLine = 11;

constexpr nv_IVerifier_ops kOps{&VerifyStub};
}  // namespace

nv_IVerifier CreateStub(std::shared_ptr<IVerifier> verifier)
{
    if (!verifier)
        eka::Throw<eka::ResultCodeException>(kFile, kEmptyVerifierLine, eka::result::InvalidArgument,
                                             u"empty verifier");
    return nv_IVerifier{&kOps, std::move(verifier)};
}

}  // namespace update::verifier::ipc
