// The IVerifier interface on the wire: the component's dispatcher (and the
// entity's answer to what it refuses) and the stub, byte for byte.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

#include "eka/exception.h"
#include "refused_request.h"
#include "support/log_capture.h"
#include "verifier_api/component.h"
#include "verifier_api/stub.h"
#include "verifier_api/stub_factory.h"

namespace verifier_test {
namespace {

using Bytes32 = std::array<std::uint8_t, 32>;
constexpr std::uint8_t kNoise = 0xCC;  // what a reply buffer holds before the call

// The bytes of a reply, laid out by hand: the indexes, the size word and the
// result, every other byte `fill`.
Bytes32 Reply(std::uint16_t riid, std::uint16_t mid, std::uint32_t size, std::uint32_t result,
              std::uint8_t fill = 0)
{
    Bytes32 b;
    b.fill(fill);
    for (int i = 0; i < 4; ++i) {
        b[4 + i] = static_cast<std::uint8_t>(size >> (8 * i));
        b[24 + i] = static_cast<std::uint8_t>(result >> (8 * i));
    }
    b[0] = static_cast<std::uint8_t>(riid), b[1] = static_cast<std::uint8_t>(riid >> 8);
    b[2] = static_cast<std::uint8_t>(mid), b[3] = static_cast<std::uint8_t>(mid >> 8);
    return b;
}
const Bytes32 kUntouched = Reply(0xCCCC, 0xCCCC, 0xCCCCCCCC, 0xCCCCCCCC, kNoise);

// A request whose other header bytes are noise, so that reading them shows.
nv_Verifier_component_req Request(std::uint16_t riid, std::uint16_t mid, std::uint32_t handleWord)
{
    nv_Verifier_component_req req;
    std::memset(&req, 0xA7, sizeof req);
    req.base_.riid = riid;
    req.base_.mid = mid;
    req.productVerifier.Verify.handle = handleWord;
    return req;
}

template <typename T>
Bytes32 BytesOf(const T& value)
{
    Bytes32 bytes;
    std::memcpy(bytes.data(), &value, bytes.size());
    return bytes;
}

constexpr int kThrow = 1;  // a Recording's result that makes it throw

class Recording final : public update::verifier::ipc::IVerifier {
public:
    explicit Recording(int result) : m_result(result) {}
    int Verify(unsigned int handle) const override
    {
        if (m_result == kThrow)
            throw std::runtime_error("verifier threw");
        handles.push_back(handle);
        return m_result;
    }
    mutable std::vector<unsigned int> handles;

private:
    int m_result;
};

// Both endpoints wired as the entity wires them, each to its own verifier.
struct Wired {
    explicit Wired(int result)
        : product(std::make_shared<Recording>(result)), applist(std::make_shared<Recording>(result)),
          productStub(update::verifier::ipc::CreateStub(product)), applistStub(update::verifier::ipc::CreateStub(applist))
    {
    }
    std::shared_ptr<Recording> product, applist;
    nv_IVerifier productStub, applistStub;
    nv_Verifier_endpoint productEndpoint{&productStub}, applistEndpoint{&applistStub};
    nv_Verifier_component component{&productEndpoint, &applistEndpoint};
};

TEST(InterfaceTest, Dispatch_Table)
{
    constexpr std::uint32_t kNone = 0xDEAD;  // no verifier is called
    struct Row {
        const char* name;
        std::uint16_t riid, mid;
        std::uint32_t handleWord;
        int result;  // of the verifier
        int rc;
        Bytes32 reply;
        std::uint32_t productHandle, applistHandle;
        std::uint32_t refused;  // the entity's code for a refused request
    };
    const Row rows[] = {
        {"product, success: a bare header", 0, 0, 5, 0, 0, Reply(0, 0, 0x18, 0), 5, kNone, 0},
        {"applist, top byte of the handle dropped", 1, 0, 0xAB000005u, 0, 0, Reply(1, 0, 0x18, 0), kNone, 5, 0},
        {"a positive result is a success", 1, 0, 9, 7, 0, Reply(1, 0, 0x18, 0), kNone, 9, 0},
        {"failure: error flag, 32 bytes, the code", 0, 0, 5, -49152, 0, Reply(0, 0, 0x80000020, 0xFFFF4000), 5, kNone,
         0},
        {"no handle in 24 bits is widened", 1, 0, 0x00FFFFFFu, -1, 0, Reply(1, 0, 0x80000020, 0xFFFFFFFF), kNone,
         0xFFFFFFFFu, 0},
        {"and so is the all-ones word", 0, 0, 0xFFFFFFFFu, 0, 0, Reply(0, 0, 0x18, 0), 0xFFFFFFFFu, kNone, 0},
        {"one below is not", 0, 0, 0x12FFFFFEu, 0, 0, Reply(0, 0, 0x18, 0), 0x00FFFFFEu, kNone, 0},
        {"unknown interface: nothing written", 2, 0, 5, 0, -2, kUntouched, kNone, kNone, 0x80000001},
        {"interface 0xFFFF", 0xFFFF, 0, 5, 0, -2, kUntouched, kNone, kNone, 0x80000001},
        {"unknown method: the indexes written", 1, 3, 5, 0, -2, Reply(1, 3, 0xCCCCCCCC, 0xCCCCCCCC, kNoise), kNone,
         kNone, 0x80000057},
        {"unknown method of the product", 0, 1, 5, 0, -2, Reply(0, 1, 0xCCCCCCCC, 0xCCCCCCCC, kNoise), kNone, kNone,
         0x80000057},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        for (const bool entity : {false, true}) {
            Wired wired(row.result);
            const nv_Verifier_component_req req = Request(row.riid, row.mid, row.handleWord);
            nv_Verifier_component_res res;
            std::memset(&res, kNoise, sizeof res);
            const auto dispatch = entity ? update::verifier::entity::DispatchOrRefuse : nv_Verifier_component_dispatch;
            EXPECT_EQ(dispatch(&wired.component, &req.base_, nullptr, &res.base_, nullptr), row.rc);
            EXPECT_EQ(BytesOf(res), entity && row.rc != 0 ? Reply(row.riid, row.mid, 0x80000020, row.refused) : row.reply)
                << (entity ? "through the entity" : "");
            EXPECT_EQ(wired.product->handles, (row.productHandle == kNone ? std::vector<unsigned int>{}
                                                                          : std::vector<unsigned int>{row.productHandle}));
            EXPECT_EQ(wired.applist->handles, (row.applistHandle == kNone ? std::vector<unsigned int>{}
                                                                          : std::vector<unsigned int>{row.applistHandle}));
        }
    }
}

TEST(InterfaceTest, Dispatch_WithoutObjectOrArgumentsCallsNothing)
{
    Wired wired(0);
    nv_IVerifier noOps{};
    nv_Verifier_endpoint noOpsEndpoint{&noOps}, emptyEndpoint{};
    nv_Verifier_component unwired[] = {{nullptr, &wired.applistEndpoint}, {&emptyEndpoint, &wired.applistEndpoint},
                                       {&noOpsEndpoint, &wired.applistEndpoint}};
    const nv_Verifier_component_req req = Request(0, 0, 5);
    nv_Verifier_component_res res;
    std::memset(&res, kNoise, sizeof res);
    for (nv_Verifier_component& component : unwired)
        EXPECT_EQ(nv_Verifier_component_dispatch(&component, &req.base_, nullptr, &res.base_, nullptr), -2);
    EXPECT_EQ(nv_Verifier_component_dispatch(nullptr, &req.base_, nullptr, &res.base_, nullptr), NK_EINVAL);
    EXPECT_EQ(nv_Verifier_component_dispatch(&wired.component, nullptr, nullptr, &res.base_, nullptr), NK_EINVAL);
    EXPECT_EQ(nv_Verifier_component_dispatch(&wired.component, &req.base_, nullptr, nullptr, nullptr), NK_EINVAL);
    EXPECT_EQ(BytesOf(res), kUntouched);
    EXPECT_TRUE(wired.applist->handles.empty());
}

// Called directly, the stub keeps the platform's bits 23-30 of the size word,
// and answers arguments it cannot use with 0x80000046.
TEST(InterfaceTest, VerifyStub_Table)
{
    test_support::LogCapture log;
    test_support::RootLoggerCapture capture(log);
    Wired wired(-2);
    nv_IVerifier noVerifier{wired.productStub.ops, nullptr};
    const nv_Verifier_component_req req = Request(0, 0, 5);
    const nv_IVerifier_Verify_req* goodReq = &req.productVerifier.Verify;
    struct Row {
        const char* name;
        nv_IVerifier* self;
        const nv_IVerifier_Verify_req* req;
        bool withReply;
        std::uint32_t oldSize;
        Bytes32 reply;
        const char* line;
    };
    const std::uint32_t kInvalid = 0x80000046;
    const Row rows[] = {
        {"failure keeps bits 23-30", &wired.productStub, goodReq, true, 0x7F8000FF,
         Reply(0xCCCC, 0xCCCC, 0xFF800020, 0xFFFFFFFE, kNoise), nullptr},
        {"and clears the old size", &wired.productStub, goodReq, true, 0x807FFFFF,
         Reply(0xCCCC, 0xCCCC, 0x80000020, 0xFFFFFFFE, kNoise), nullptr},
        {"no self", nullptr, goodReq, true, 0x7F8000FF, Reply(0xCCCC, 0xCCCC, 0xFF800020, kInvalid, kNoise),
         ": self is nullptr: 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub"},
        {"no request", &wired.productStub, nullptr, true, 0x18, Reply(0xCCCC, 0xCCCC, 0x80000020, kInvalid, kNoise),
         ": req is nullptr: 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub"},
        {"no reply: nothing written", &wired.productStub, goodReq, false, 0x18, Reply(0xCCCC, 0xCCCC, 0x18, 0xCCCCCCCC, kNoise),
         ": res is nullptr: 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub"},
        {"no verifier", &noVerifier, goodReq, true, 0x18, Reply(0xCCCC, 0xCCCC, 0x80000020, kInvalid, kNoise),
         ": empty verifier: 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        nv_IVerifier_Verify_res res;
        std::memset(&res, kNoise, sizeof res);
        res.base_.size = row.oldSize;
        EXPECT_EQ(update::verifier::ipc::VerifyStub(row.self, row.req, nullptr, row.withReply ? &res : nullptr, nullptr), 0);
        EXPECT_EQ(BytesOf(res), row.reply);
        std::vector<std::string> lines;
        for (const auto& line : log.Lines())
            lines.push_back(line.text);
        EXPECT_EQ(lines, row.line ? std::vector<std::string>{row.line} : std::vector<std::string>{});
    }
}

TEST(InterfaceTest, CreateStub_EmptyVerifierThrows)
{
    try {
        (void)update::verifier::ipc::CreateStub(nullptr);
        ADD_FAILURE() << "nothing thrown";
    } catch (const eka::ResultCodeException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.result()), 0x80000046u);
        EXPECT_EQ(e.description(), u"empty verifier");
    }
}

// A verifier that throws breaks its contract: the stub lets nothing through.
TEST(InterfaceTest, VerifyStub_VerifierThatThrowsEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Wired wired(kThrow);
    const nv_Verifier_component_req req = Request(1, 0, 5);
    nv_Verifier_component_res res{};
    EXPECT_DEATH((void)nv_Verifier_component_dispatch(&wired.component, &req.base_, nullptr, &res.base_, nullptr), "");
}

}  // namespace
}  // namespace verifier_test
