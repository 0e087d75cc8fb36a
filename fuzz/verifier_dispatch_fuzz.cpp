// Fuzz target: the IVerifier component dispatcher and the stub behind it,
// fed a raw 40-byte request buffer, a reply buffer with arbitrary old
// contents, arbitrary arenas and an arbitrary verifier result.
//
// Input: flags (1 byte), verifier result (int32), old reply (32 bytes),
// request (40 bytes), then the request arena's bytes. Flags bits 0-1 pick
// how the component is wired: 0 both endpoints, 1 no product endpoint,
// 2 an applist interface object without a verifier, 3 an applist endpoint
// without an interface object. Bit 2 calls VerifyStub directly instead, with
// bits 3-5 making self, req and res null.
//
// Checks the reply byte for byte against the interface's contract, that the
// verifier runs exactly when a Verify reaches it and with the 24-bit handle,
// and that the arenas are never touched.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz_support.h"
#include "root_logger.h"
#include "verifier_api/component.h"
#include "verifier_api/stub.h"
#include "verifier_api/stub_factory.h"

namespace {

using update::verifier::ipc::IVerifier;

constexpr int kNoSuchMethod = -2;
constexpr std::uint32_t kInvalidArgument = 0x80000046u;
constexpr std::size_t kReplySize = sizeof(nv_IVerifier_Verify_res);

class RecordingVerifier final : public IVerifier {
public:
    explicit RecordingVerifier(int result) : m_result(result) {}

    int Verify(unsigned int handle) const override
    {
        ++calls;
        lastHandle = handle;
        return m_result;
    }

    mutable int calls = 0;
    mutable unsigned int lastHandle = 0;

private:
    int m_result;
};

std::uint32_t ExpectedHandle(const std::uint8_t* request)
{
    const std::uint32_t low = fuzz::LoadU32(request + 24) & 0x00FFFFFFu;
    return low == 0x00FFFFFFu ? 0xFFFFFFFFu : low;
}

void StoreU32(std::uint8_t* p, std::uint32_t v) { std::memcpy(p, &v, sizeof v); }

// The reply of a Verify that reached the stub: the stub writes only the
// result and size words (the dispatcher cleared the rest before).
void ExpectStubReply(std::vector<std::uint8_t>& expected, int result)
{
    if (result >= 0)
        return;
    const std::uint32_t size = fuzz::LoadU32(expected.data() + 4);
    StoreU32(expected.data() + 4, (size & NK_MSG_PLATFORM_MASK) | NK_MSG_ERROR_FLAG | kReplySize);
    StoreU32(expected.data() + 24, static_cast<std::uint32_t>(result));
}

struct Arenas {
    std::vector<std::uint8_t> requestBytes;
    std::vector<std::uint8_t> replyBytes = std::vector<std::uint8_t>(64, 0xA5);
    nk_arena request{};
    nk_arena reply{};

    explicit Arenas(std::vector<std::uint8_t> bytes) : requestBytes(std::move(bytes))
    {
        nk_arena_init(&request, requestBytes.empty() ? nullptr : requestBytes.data(), requestBytes.size());
        request.current = request.end;
        nk_arena_init(&reply, replyBytes.data(), replyBytes.size());
    }

    void CheckUntouched(const std::vector<std::uint8_t>& originalRequest) const
    {
        FUZZ_CHECK(requestBytes == originalRequest);
        FUZZ_CHECK(request.start == (requestBytes.empty() ? nullptr : requestBytes.data()));
        FUZZ_CHECK(request.current == request.end);
        FUZZ_CHECK(reply.start == replyBytes.data() && reply.current == reply.start &&
                   reply.end == replyBytes.data() + replyBytes.size());
        for (std::uint8_t b : replyBytes)
            FUZZ_CHECK(b == 0xA5);
    }
};

void DirectStubCall(std::uint8_t flags, int result, const std::vector<std::uint8_t>& request, std::vector<std::uint8_t>& reply,
                    nv_IVerifier& object, const RecordingVerifier& verifier, Arenas& arenas)
{
    const bool nullSelf = (flags & 0x08) != 0;
    const bool nullReq = (flags & 0x10) != 0;
    const bool nullRes = (flags & 0x20) != 0;
    std::vector<std::uint8_t> expected = reply;
    const int rc = update::verifier::ipc::VerifyStub(
        nullSelf ? nullptr : &object, nullReq ? nullptr : reinterpret_cast<const nv_IVerifier_Verify_req*>(request.data()),
        &arenas.request, nullRes ? nullptr : reinterpret_cast<nv_IVerifier_Verify_res*>(reply.data()), &arenas.reply);
    FUZZ_CHECK(rc == 0);
    if (nullSelf || nullReq || nullRes) {
        FUZZ_CHECK(verifier.calls == 0);
        if (!nullRes)
            ExpectStubReply(expected, static_cast<int>(kInvalidArgument));
    } else {
        const bool hasVerifier = object.verifier != nullptr;
        FUZZ_CHECK(verifier.calls == (hasVerifier ? 1 : 0));
        if (hasVerifier)
            FUZZ_CHECK(verifier.lastHandle == ExpectedHandle(request.data()));
        ExpectStubReply(expected, hasVerifier ? result : static_cast<int>(kInvalidArgument));
    }
    FUZZ_CHECK(reply == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::SilenceRootLogger();
    fuzz::Reader in(data, size);
    const std::uint8_t flags = in.Byte();
    const auto result = static_cast<int>(in.U32());
    // Exact sizes on the heap: a read or write past either buffer is caught.
    std::vector<std::uint8_t> reply = in.Bytes(kReplySize);
    const std::vector<std::uint8_t> request = in.Bytes(sizeof(nv_Verifier_component_req));
    const std::vector<std::uint8_t> arenaBytes = in.Rest();
    Arenas arenas(arenaBytes);

    auto verifier = std::make_shared<RecordingVerifier>(result);
    nv_IVerifier product = update::verifier::ipc::CreateStub(verifier);
    nv_IVerifier applist = update::verifier::ipc::CreateStub(verifier);
    const unsigned wiring = flags & 0x03u;
    if (wiring == 2)
        applist.verifier.reset();
    nv_Verifier_endpoint productEndpoint{&product};
    nv_Verifier_endpoint applistEndpoint{wiring == 3 ? nullptr : &applist};
    nv_Verifier_component component{wiring == 1 ? nullptr : &productEndpoint, &applistEndpoint};

    if ((flags & 0x04) != 0) {
        DirectStubCall(flags, result, request, reply, wiring == 2 ? applist : product, *verifier, arenas);
        arenas.CheckUntouched(arenaBytes);
        return 0;
    }

    const std::uint16_t riid = fuzz::LoadU16(request.data());
    const std::uint16_t mid = fuzz::LoadU16(request.data() + 2);
    const bool served = (riid == 0 && wiring != 1) || (riid == 1 && wiring != 3);
    std::vector<std::uint8_t> expected = reply;

    const int rc = nv_Verifier_component_dispatch(&component, reinterpret_cast<const nk_message*>(request.data()),
                                                  &arenas.request, reinterpret_cast<nk_message*>(reply.data()),
                                                  &arenas.reply);
    if (!served) {
        FUZZ_CHECK(rc == kNoSuchMethod);
        FUZZ_CHECK(verifier->calls == 0);
    } else if (mid != nv_IVerifier_Verify_mid) {
        FUZZ_CHECK(rc == kNoSuchMethod);
        FUZZ_CHECK(verifier->calls == 0);
        std::memcpy(expected.data(), request.data(), 4);
    } else {
        FUZZ_CHECK(rc == 0);
        std::fill(expected.begin(), expected.end(), 0);
        std::memcpy(expected.data(), request.data(), 4);
        if (riid == 1 && wiring == 2) {
            FUZZ_CHECK(verifier->calls == 0);
            ExpectStubReply(expected, static_cast<int>(kInvalidArgument));
        } else {
            FUZZ_CHECK(verifier->calls == 1);
            FUZZ_CHECK(verifier->lastHandle == ExpectedHandle(request.data()));
            ExpectStubReply(expected, result);
        }
        if (result >= 0 && !(riid == 1 && wiring == 2))
            StoreU32(expected.data() + 4, sizeof(nk_message));
    }
    FUZZ_CHECK(reply == expected);
    arenas.CheckUntouched(arenaBytes);
    return 0;
}
