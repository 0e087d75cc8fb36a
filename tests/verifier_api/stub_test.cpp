#include <climits>
#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "capture_sink.h"
#include "eka/exception.h"
#include "fake_verifier.h"
#include "verifier_api/stub.h"
#include "verifier_api/stub_factory.h"
#include "wire.h"

namespace {

using namespace verifier_api_test;
using update::verifier::ipc::CreateStub;
using update::verifier::ipc::VerifyStub;

// A reply that already holds noise, with the given size word.
nv_IVerifier_Verify_res NoisyReply(std::uint32_t sizeWord)
{
    nv_IVerifier_Verify_res res;
    std::memset(&res, kNoise, sizeof res);
    res.base_.size = sizeWord;
    return res;
}

TEST(VerifyStubTest, VerifyStub_NegativeResultOnlyMakesErrorReply)
{
    struct Case {
        std::uint32_t oldWord;
        int result;
        std::uint32_t newWord;  // of an error reply
    };
    const Case cases[] = {
        {0x00000018u, -1, 0x80000020u},
        {0x7F800000u, static_cast<int>(0x80000046u), 0xFF800020u},
        {0xFFFFFFFFu, static_cast<int>(0x80010102u), 0xFF800020u},
        {0x00800030u, INT_MIN, 0x80800020u},
        {0x807FFFFFu, -2, 0x80000020u},
        {0x7F8000FFu, 0, 0},
        {0x7F8000FFu, 1, 0},
        {0x7F8000FFu, INT_MAX, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << "old word 0x" << c.oldWord << ", result 0x" << c.result);
        auto verifier = std::make_shared<FakeVerifier>(c.result);
        nv_IVerifier stub = CreateStub(verifier);
        const nv_Verifier_component_req req = MakeRequest(0, 0, 0x00FFFFFFu);
        nv_IVerifier_Verify_res res = NoisyReply(c.oldWord);
        const Bytes32 before = BytesOf(res);
        EXPECT_EQ(VerifyStub(&stub, &req.productVerifier.Verify, nullptr, &res, nullptr), 0);
        EXPECT_EQ(verifier->handles(), std::vector<unsigned int>{0xFFFFFFFFu});

        Bytes32 expected = before;
        if (c.result < 0) {
            PutLe32(expected, 4, c.newWord);
            PutLe32(expected, 24, static_cast<std::uint32_t>(c.result));
        }
        EXPECT_EQ(BytesOf(res), expected);
    }
}

class VerifyStubArgumentsTest : public logger_test::RootCaptureTest {};

TEST_F(VerifyStubArgumentsTest, VerifyStub_BadArgumentsGiveInvalidArgumentReply)
{
    auto verifier = std::make_shared<FakeVerifier>(-1);
    nv_IVerifier stub = CreateStub(verifier);
    nv_IVerifier emptyStub{stub.ops, nullptr};
    const nv_Verifier_component_req req = MakeRequest(0, 0, 5);
    const nv_IVerifier_Verify_req* goodReq = &req.productVerifier.Verify;

    struct Case {
        const char* name;
        nv_IVerifier* self;
        const nv_IVerifier_Verify_req* req;
        bool withReply;
        std::string description;
    };
    const Case cases[] = {
        {"no self", nullptr, goodReq, true, "self is nullptr"},
        {"no self, no request", nullptr, nullptr, true, "self is nullptr"},
        {"no request", &stub, nullptr, true, "req is nullptr"},
        {"no request, no reply", &stub, nullptr, false, "req is nullptr"},
        {"no reply", &stub, goodReq, false, "res is nullptr"},
        {"interface object without verifier", &emptyStub, goodReq, true, "empty verifier"},
    };
    for (const Case& c : cases) {
        nv_IVerifier_Verify_res res = NoisyReply(0x7F8000FFu);
        EXPECT_EQ(VerifyStub(c.self, c.req, nullptr, c.withReply ? &res : nullptr, nullptr), 0) << c.name;

        Bytes32 expected = NoiseBytes();
        PutLe32(expected, 4, c.withReply ? 0xFF800020u : 0x7F8000FFu);
        if (c.withReply)
            PutLe32(expected, 24, 0x80000046u);
        EXPECT_EQ(BytesOf(res), expected) << c.name;

        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), 1u) << c.name;
        EXPECT_EQ(records[0].level, spdlog::level::err) << c.name;
        EXPECT_EQ(records[0].text, ": " + c.description +
                                       ": 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub")
            << c.name;
    }
    EXPECT_TRUE(verifier->handles().empty());
}

TEST(CreateStubTest, CreateStub_EmptyVerifierThrows)
{
    try {
        CreateStub(nullptr);
        FAIL() << "nothing thrown";
    } catch (const eka::ResultCodeException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.result()), 0x80000046u);
        EXPECT_EQ(e.description(), u"empty verifier");
        EXPECT_STREQ(e.file(), "shared/updater_pdk/verifier_api/src/stub_factory");
        EXPECT_EQ(e.line(), 11);
        ASSERT_NE(e.error_info(), nullptr);
        EXPECT_EQ(e.error_info()->Get(eka::error_info::Result), static_cast<int>(0x80000046u));
    }
}

TEST(CreateStubTest, CreateStub_HoldsVerifierBehindVerifyStub)
{
    auto verifier = std::make_shared<FakeVerifier>();
    const std::weak_ptr<FakeVerifier> watch = verifier;
    nv_IVerifier stub = CreateStub(verifier);
    ASSERT_NE(stub.ops, nullptr);
    EXPECT_EQ(stub.ops->Verify, &VerifyStub);
    EXPECT_EQ(stub.verifier.get(), verifier.get());

    verifier.reset();
    EXPECT_FALSE(watch.expired()) << "the interface object keeps its verifier alive";
    stub = nv_IVerifier{};
    EXPECT_TRUE(watch.expired());
}

}  // namespace
