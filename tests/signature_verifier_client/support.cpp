#include "support.h"

#include <cstdlib>
#include <memory>

#include <nglog/nglog.h>

namespace signature_verifier::client::testing {

Logged RunLogged(const std::function<int()>& call)
{
    ::testing::internal::CaptureStderr();
    const int status = call();
    return {status, ::testing::internal::GetCapturedStderr()};
}

void UseOwnRuntimeDir()
{
    static const auto dir = [] {
        auto made = std::make_unique<host::testing::TempDir>("signature-verifier-client-test");
        setenv("NOS_RUNTIME_DIR", made->Path().c_str(), 1);
        // A wedged peer fails a call instead of hanging the test.
        setenv("NOS_CALL_TIMEOUT_MS", "30000", 1);
        return made;
    }();
    (void)dir;
}

void ClientTest::SetUp()
{
    UseOwnRuntimeDir();
    nglog_init(nullptr, NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_WARNING);
    nglog_enable_extended_prefix(0);
}

void ClientTest::TearDown()
{
    nglog_set_level(NGLOG_LEVEL_WARNING);
}

}  // namespace signature_verifier::client::testing
