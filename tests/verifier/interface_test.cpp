// The IVerifier interface on the wire: the component's dispatcher (and the
// entity's answer to what it refuses) and the stub, byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "eka/exception.h"
#include "refused_request.h"
#include "support/log_capture.h"
#include "support/scripted_transport.h"
#include "verifier_api/stub.h"
#include "verifier_api/stub_factory.h"

namespace verifier_test {
namespace {

using test_support::Bytes;
using test_support::BytesOf;
constexpr std::uint8_t kNoise = 0xCC;  // what a reply buffer holds before the call
constexpr std::uint32_t kNoise32 = 0xCCCCCCCC;

// A reply laid out by hand: the indexes, the size word and the result, every
// other byte `fill`.
Bytes Reply(std::uint16_t riid, std::uint16_t mid, std::uint32_t size, std::uint32_t result, std::uint8_t fill = 0)
{
    Bytes b(32, fill);
    for (int i = 0; i < 4; ++i) {
        b[i] = static_cast<std::uint8_t>((i < 2 ? riid : mid) >> (i % 2 * 8));
        b[4 + i] = static_cast<std::uint8_t>(size >> (8 * i));
        b[24 + i] = static_cast<std::uint8_t>(result >> (8 * i));
    }
    return b;
}
const Bytes kUntouched = Reply(0xCCCC, 0xCCCC, kNoise32, kNoise32, kNoise);

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

struct Recording final : update::verifier::ipc::IVerifier {
    explicit Recording(int result_) : result(result_) {}
    int Verify(unsigned int handle) const override
    {
        handles.push_back(handle);
        return result;
    }
    int result;
    mutable std::vector<unsigned int> handles;
};

// Both endpoints wired as the entity wires them, each to its own verifier.
struct Wired {
    explicit Wired(int result) : verifiers{std::make_shared<Recording>(result), std::make_shared<Recording>(result)} {}
    std::shared_ptr<Recording> verifiers[2];  // product, applist
    nv_IVerifier stubs[2] = {update::verifier::ipc::CreateStub(verifiers[0]),
                             update::verifier::ipc::CreateStub(verifiers[1])};
    nv_Verifier_endpoint endpoints[2] = {{&stubs[0]}, {&stubs[1]}};
    nv_Verifier_component component{&endpoints[0], &endpoints[1]};
};

TEST(VerifierInterfaceTest, Dispatch_Table)
{
    struct Row {
        const char* name;
        std::uint16_t riid, mid;
        std::uint32_t handleWord;
        int result;  // of the verifier
        int rc;
        Bytes reply;
        int called;  // the verifier called (0 product, 1 applist), -1 none
        std::uint32_t handle;
        std::uint32_t refused;  // the entity's code for a request the dispatcher refuses
    };
    const Row rows[] = {
        {"product, success: a bare header", 0, 0, 5, 0, 0, Reply(0, 0, 0x18, 0), 0, 5, 0},
        {"applist, top byte of the handle dropped", 1, 0, 0xAB000005, 0, 0, Reply(1, 0, 0x18, 0), 1, 5, 0},
        {"a positive result is a success", 1, 0, 9, 7, 0, Reply(1, 0, 0x18, 0), 1, 9, 0},
        {"failure: error flag, 32 bytes, the code", 0, 0, 5, -49152, 0, Reply(0, 0, 0x80000020, 0xFFFF4000), 0, 5, 0},
        {"no handle in 24 bits is widened", 1, 0, 0x00FFFFFF, -1, 0, Reply(1, 0, 0x80000020, 0xFFFFFFFF), 1,
         0xFFFFFFFF, 0},
        {"and so is the all-ones word", 0, 0, 0xFFFFFFFF, 0, 0, Reply(0, 0, 0x18, 0), 0, 0xFFFFFFFF, 0},
        {"one below is not", 0, 0, 0x12FFFFFE, 0, 0, Reply(0, 0, 0x18, 0), 0, 0x00FFFFFE, 0},
        {"unknown interface: nothing written", 2, 0, 5, 0, -2, kUntouched, -1, 0, 0x80000001},
        {"interface 0xFFFF", 0xFFFF, 0, 5, 0, -2, kUntouched, -1, 0, 0x80000001},
        {"unknown method: the indexes written", 1, 3, 5, 0, -2, Reply(1, 3, kNoise32, kNoise32, kNoise), -1, 0,
         0x80000057},
        {"unknown method of the product", 0, 1, 5, 0, -2, Reply(0, 1, kNoise32, kNoise32, kNoise), -1, 0, 0x80000057},
    };
    for (const Row& row : rows) {
        for (const bool entity : {false, true}) {
            SCOPED_TRACE(std::string(row.name) + (entity ? ", through the entity" : ""));
            Wired wired(row.result);
            const nv_Verifier_component_req req = Request(row.riid, row.mid, row.handleWord);
            nv_Verifier_component_res res;
            std::memset(&res, kNoise, sizeof res);
            const auto dispatch = entity ? update::verifier::entity::DispatchOrRefuse : nv_Verifier_component_dispatch;
            EXPECT_EQ(dispatch(&wired.component, &req.base_, nullptr, &res.base_, nullptr), row.rc);
            const bool refused = entity && row.rc != 0;
            EXPECT_EQ(BytesOf(res), refused ? Reply(row.riid, row.mid, 0x80000020, row.refused) : row.reply);
            for (const int i : {0, 1})
                EXPECT_EQ(wired.verifiers[i]->handles,
                          (i == row.called ? std::vector<unsigned int>{row.handle} : std::vector<unsigned int>{}));
        }
    }
}

// Called directly, the stub keeps the platform's bits 23-30 of the size word,
// and answers arguments it cannot use with 0x80000046.
TEST(VerifierInterfaceTest, VerifyStub_Table)
{
    test_support::LogCapture log;
    test_support::RootLoggerCapture capture(log);
    Wired wired(-2);
    nv_IVerifier noVerifier{wired.stubs[0].ops, nullptr};
    const nv_Verifier_component_req req = Request(0, 0, 5);
    const nv_IVerifier_Verify_req* goodReq = &req.productVerifier.Verify;
    struct Row {
        const char* name;
        nv_IVerifier* self;
        const nv_IVerifier_Verify_req* req;
        bool withReply;
        std::uint32_t oldSize, size, result;
        std::string description;  // of the one line logged, if any
    };
    const Row rows[] = {
        {"failure keeps bits 23-30", &wired.stubs[0], goodReq, true, 0x7F8000FF, 0xFF800020, 0xFFFFFFFE, ""},
        {"and clears the old size", &wired.stubs[0], goodReq, true, 0x807FFFFF, 0x80000020, 0xFFFFFFFE, ""},
        {"no self", nullptr, goodReq, true, 0x7F8000FF, 0xFF800020, 0x80000046, "self is nullptr"},
        {"no request", &wired.stubs[0], nullptr, true, 0x18, 0x80000020, 0x80000046, "req is nullptr"},
        {"no reply: nothing written", &wired.stubs[0], goodReq, false, 0x18, 0x18, kNoise32, "res is nullptr"},
        {"no verifier", &noVerifier, goodReq, true, 0x18, 0x80000020, 0x80000046, "empty verifier"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        nv_IVerifier_Verify_res res;
        std::memset(&res, kNoise, sizeof res);
        res.base_.size = row.oldSize;
        nv_IVerifier_Verify_res* reply = row.withReply ? &res : nullptr;
        EXPECT_EQ(update::verifier::ipc::VerifyStub(row.self, row.req, nullptr, reply, nullptr), 0);
        EXPECT_EQ(BytesOf(res), Reply(0xCCCC, 0xCCCC, row.size, row.result, kNoise));
        std::string lines, during = ": 0x80000046 (Invalid argument) ; detailed: exception during: VerifyStub\n";
        for (const auto& logged : log.Lines())
            lines += logged.text + "\n";
        EXPECT_EQ(lines, row.description.empty() ? "" : ": " + row.description + during);
    }
}

TEST(VerifierInterfaceTest, CreateStub_EmptyVerifierThrows)
{
    try {
        (void)update::verifier::ipc::CreateStub(nullptr);
        ADD_FAILURE() << "nothing thrown";
    } catch (const eka::ResultCodeException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.result()), 0x80000046u);
        EXPECT_EQ(e.description(), u"empty verifier");
    }
}

}  // namespace
}  // namespace verifier_test
