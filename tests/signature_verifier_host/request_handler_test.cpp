#include "request_handler.h"

#include <cstring>
#include <sstream>

#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include "checker_fixture.h"
#include "wire_requests.h"

namespace signature_verifier::host::testing {
namespace {

// The reply as raw bytes, read at the wire offsets.
struct WireReply {
    std::uint16_t riid;
    std::uint16_t mid;
    std::uint32_t sizeWord;
    std::uint32_t code;
    std::uint32_t tail;
    bool headerRestZero;
};

WireReply Decode(const nv_SignatureVerifier_res& reply)
{
    std::uint8_t raw[32];
    std::memcpy(raw, &reply, sizeof raw);
    WireReply w{};
    std::memcpy(&w.riid, raw + 0, 2);
    std::memcpy(&w.mid, raw + 2, 2);
    std::memcpy(&w.sizeWord, raw + 4, 4);
    std::memcpy(&w.code, raw + 24, 4);
    std::memcpy(&w.tail, raw + 28, 4);
    w.headerRestZero = std::all_of(raw + 8, raw + 24, [](std::uint8_t b) { return b == 0; });
    return w;
}

class RequestHandlerTest : public CheckerTest {
protected:
    std::unique_ptr<SignatureChecker> checker = fx.TrustingChecker();
    std::ostringstream log;
    RequestHandler handler{*checker, 0, MakeLogger(log)};

    static std::shared_ptr<spdlog::logger> MakeLogger(std::ostringstream& out)
    {
        auto sink = std::make_shared<spdlog::sinks::ostream_sink_mt>(out);
        sink->set_pattern("%l %v");
        return std::make_shared<spdlog::logger>("test", sink);
    }

    // Handles the request into a reply full of junk, so that every byte left
    // unwritten shows.
    WireReply Answer(const WireRequest& r, std::uint32_t expectedCode)
    {
        nv_SignatureVerifier_res reply;
        std::memset(&reply, 0xAA, sizeof reply);
        EXPECT_EQ(handler.Handle(r.message, r.arena, reply), expectedCode);
        const WireReply w = Decode(reply);
        EXPECT_EQ(w.riid, r.message.base.riid);
        EXPECT_EQ(w.mid, r.message.base.mid);
        EXPECT_TRUE(w.headerRestZero);
        EXPECT_EQ(w.tail, 0u);
        if (expectedCode == NV_SIGNATURE_VERIFIER_CC_OK) {
            EXPECT_EQ(w.sizeWord, 32u);
            EXPECT_EQ(w.code, 0u);
        } else {
            EXPECT_EQ(w.sizeWord, 0x80000020u);
            EXPECT_EQ(w.code, expectedCode);
        }
        return w;
    }
};

TEST_F(RequestHandlerTest, Handle_Checks_ReplyCarriesOutcome)
{
    ByteVector other = fx.data;
    other[0] ^= 1;
    Answer(CheckBufferRequest(fx.data, fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_OK);
    Answer(CheckBufferRequest(other, fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
    Answer(CheckHashRequest(1, Streebog256(fx.data), fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_OK);
    Answer(CheckHashRequest(1, Streebog256(other), fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
    Answer(CheckHashRequest(7, Streebog256(fx.data), fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM);
    Answer(CheckHashRequest(1, ByteVector(48, 1), fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE);
    EXPECT_EQ(log.str(), "info CheckBuffer: passed\n"
                         "warning CheckBuffer (mid 0): refused with code 1: the message digest does not match the data\n"
                         "info CheckHash: passed\n"
                         "warning CheckHash (mid 1): refused with code 1: the message digest does not match the data\n"
                         "warning CheckHash (mid 1): refused with code 5: hash algorithm 7 is not supported\n"
                         "warning CheckHash (mid 1): refused with code 6: a Streebog-256 hash has 32 bytes, not 48\n");
}

struct MalformedCase {
    const char* name;
    WireRequest request;
    std::string detail; // expected log text, "" when not asserted
};

TEST_F(RequestHandlerTest, Handle_MalformedRequests_RefusedAndServingGoesOn)
{
    const ByteVector hash = Streebog256(fx.data);
    std::vector<MalformedCase> cases;
    auto add = [&](const char* name, WireRequest r, std::string detail) { cases.push_back({name, std::move(r), detail}); };

    WireRequest r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.base.riid = 1;
    add("other interface", r, "interface 1 is not served here");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.base.mid = 5;
    add("method 5", r, "method 5 does not exist");
    r.message.base.mid = 0xFFFF;
    add("method 0xFFFF", r, "method 65535 does not exist");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    nk_msg_set_size(&r.message.base, 39);
    add("short CheckBuffer", r, "a request of 39 bytes, expected 40");
    nk_msg_set_size(&r.message.base, 48);
    add("long CheckBuffer", r, "a request of 48 bytes, expected 40");
    r = CheckHashRequest(1, hash, fx.goodSignature);
    nk_msg_set_size(&r.message.base, 40);
    add("short CheckHash", r, "a request of 40 bytes, expected 48");
    r = OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, {});
    nk_msg_set_size(&r.message.base, 0);
    add("empty SetCRLBlob", r, "a request of 0 bytes, expected 32");

    const auto used = static_cast<std::uint32_t>(fx.data.size() + fx.goodSignature.size());
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.check_buffer.signature.size += 1;
    add("signature past the received bytes", r, "");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.check_buffer.data = {used, 1};
    add("data right behind the received bytes", r, "data (" + std::to_string(used) + ", 1) lies outside the " + std::to_string(used) + " bytes of the arena");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.check_buffer.data = {0xFFFFFFFFu, 2};
    add("offset wrapping around", r, "data (4294967295, 2) lies outside the " + std::to_string(used) + " bytes of the arena");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.check_buffer.data = {0, NV_SIGNATURE_VERIFIER_MAX_DATA_SIZE + 1};
    add("data over 64 MiB", r, "data of 67108865 bytes exceeds 67108864");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.message.check_buffer.signature = {0, NV_SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE + 1};
    add("signature over 64 MiB", r, "signature of 67108865 bytes exceeds 67108864");
    r = CheckHashRequest(1, ByteVector(NV_SIGNATURE_VERIFIER_MAX_HASH_SIZE + 1, 0), fx.goodSignature);
    add("hash over 512 bytes", r, "hash of 513 bytes exceeds 512");
    r = CheckHashRequest(1, hash, fx.goodSignature);
    r.message.check_hash.reserved0[1] = 1;
    add("CheckHash byte 26 set", r, "reserved bytes of CheckHash are not zero");
    r = CheckHashRequest(1, hash, fx.goodSignature);
    r.message.check_hash.reserved1[3] = 1;
    add("CheckHash byte 47 set", r, "reserved bytes of CheckHash are not zero");
    r = CheckBufferRequest(fx.data, fx.goodSignature);
    r.arena = nk_arena{nullptr, nullptr, nullptr};
    add("no arena", r, "data (0, " + std::to_string(fx.data.size()) + ") lies outside the 0 bytes of the arena");

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log.str("");
        Answer(c.request, NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST);
        if (!c.detail.empty()) {
            EXPECT_NE(log.str().find(": " + c.detail + "\n"), std::string::npos) << log.str();
        }
    }
    Answer(CheckBufferRequest(fx.data, fx.goodSignature), NV_SIGNATURE_VERIFIER_CC_OK);
}

}  // namespace
}  // namespace signature_verifier::host::testing
