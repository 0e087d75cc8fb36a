// Helpers of the client library and wrapper tests.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "test_support.h"

namespace signature_verifier::client::testing {

using host::testing::ByteVector;

// A status and what was written to standard error (nglog's foreground
// target) while the call ran.
struct Logged {
    int status;
    std::string log;
};

Logged RunLogged(const std::function<int()>& call);

// Points the platform calls of this process (and of the children it starts)
// at a runtime directory of its own, made once and removed at exit. Call it
// before the first platform call.
void UseOwnRuntimeDir();

// Runs each test with nglog as the Verifier has it: level 2, standard error,
// no name, plain prefix; and with a runtime directory of the process's own.
class ClientTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace signature_verifier::client::testing
