// What the in-process tests of the checks share: the GOST engine, one test
// PKI with signatures made from it, and checkers trusting its root.
#pragma once

#include <memory>

#include <gtest/gtest.h>

#include "gost_engine.h"
#include "signature_checker.h"
#include "test_support.h"

namespace signature_verifier::host::testing {

struct SharedPki {
    GostEngine engine;
    TempDir dir{"signature-checker-test"};
    TestPki pki{dir.Path() / "pki"};
    ByteVector data = ToBytes("update archive bytes \x01\x02\x03");
    ByteVector goodSignature = pki.SignPackage(data);

    // A checker that trusts the root of the PKI only.
    std::unique_ptr<SignatureChecker> TrustingChecker() const
    {
        auto checker = std::make_unique<SignatureChecker>();
        checker->LoadRoots(pki.File("roots"));
        return checker;
    }
};

// Made on first use, once per test process.
inline SharedPki& Shared()
{
    static SharedPki shared;
    return shared;
}

// The shared PKI is made by the first test's fixture rather than in
// SetUpTestSuite, so that a failure to make it fails the tests instead of
// skipping them.
class CheckerTest : public ::testing::Test {
protected:
    SharedPki& fx = Shared();
};

}  // namespace signature_verifier::host::testing
