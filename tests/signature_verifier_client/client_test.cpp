// The client library of the signature-verifier entity: its argument checks,
// the requests on the wire, the decoding of the answers, hash contexts and
// certificate identifiers, against fakes of the entity in this process.
#include <nds/nds.h>
#include <nos/kernel.h>
#include <nos/service_locator.h>
#include <nos/transport.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>

#include <cstring>

#include "client_fixture.h"
#include "support/fake_peer.h"

using signature_verifier::testing::Seams;

extern "C" {
Retcode __real_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags);
int __real_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size);

// A bound transport gets the platform's operations with its call going
// through Seams::callResult.
Retcode __wrap_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags)
{
    if (Seams::failTransportInit)
        return NK_EBADF;
    const Retcode rc = __real_NkNosTransport_Init(t, handle, options, flags);
    static const NkNosTransportOps* const platform = t->ops;
    static const NkNosTransportOps routed = [] {
        NkNosTransportOps ops = *platform;
        ops.call = [](NkNosTransport* self, const nk_message* req, const nk_arena* reqArena, nk_message* res,
                      nk_arena* resArena) {
            return Seams::callResult ? *Seams::callResult : platform->call(self, req, reqArena, res, resArena);
        };
        return ops;
    }();
    if (rc == NK_EOK)
        t->ops = &routed;
    return rc;
}

int __wrap_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size)
{
    if (Seams::onChunk)
        Seams::onChunk(buffer, size);
    return __real_signature_verifier_hash_buffer(hash, buffer, size);
}
}

namespace signature_verifier::testing {
namespace {

using test_support::Exchanged;
using test_support::FakeMode;

auto* const init = &signature_verifier_init;
auto* const checkBuffer = &signature_verifier_check_buffer;
auto* const checkHashValue = &signature_verifier_check_hash_value;
auto* const addRoot = &signature_verifier_add_root_certificate;
auto* const revokeRoot = &signature_verifier_revoke_root_certificate;
auto* const setCrl = &signature_verifier_set_crl_blob;
auto* const identifier = &signature_verifier_get_certificate_identifier;
auto* const hashValue = &signature_verifier_get_hash_value;
auto* const checkHash = &signature_verifier_check_hash;
constexpr const char* kName = SIGNATURE_VERIFIER_SERVICE_NAME;

// Each function's argument checks in the order made: status and line (the
// function's name, a colon and the text), the output arguments left as they
// were. At level 0 nothing is logged.
TEST_F(ClientTest, Functions_BadArguments_RefusedWithStatusAndLine)
{
    int object = 0;
    void* ctx = &object;  // every check fails before a context is used
    void* out = nullptr;
    const std::uint8_t b[4] = {1, 2, 3, 4};
    constexpr std::size_t over = 0x4000001;
    std::uint8_t skid[31] = {};
    std::size_t size = 0;
    struct Row {
        std::function<int()> call;
        int status;
        std::string text;
    };
    const std::pair<std::string, std::vector<Row>> functions[] = {
        {"signature_verifier_init",
         {{[&] { return init(kName, nullptr); }, 22, "ctx is NULL"},
          {[&] { return init(nullptr, &out); }, 22, "Connection  ID is NULL"}}},
        {"signature_verifier_check_buffer",
         {{[&] { return checkBuffer(nullptr, nullptr, 5, nullptr, 0); }, 22, "ctx is NULL"},
          {[&] { return checkBuffer(ctx, nullptr, 5, b, 4); }, 22, "buffer and buffer size must both be NULL or not NULL"},
          {[&] { return checkBuffer(ctx, b, 0, b, 4); }, 22, "buffer and buffer size must both be NULL or not NULL"},
          {[&] { return checkBuffer(ctx, b, over, nullptr, 0); }, 22, "buffer size (67108865) is greater that 67108864"},
          {[&] { return checkBuffer(ctx, b, 4, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkBuffer(ctx, nullptr, 0, b, 0); }, 22, "signature size is 0"},
          {[&] { return checkBuffer(ctx, b, 4, b, over); }, 22, "signature size (67108865) is greater that 67108864"}}},
        {"signature_verifier_check_hash_value",
         {{[&] { return checkHashValue(nullptr, 1, nullptr, 0, b, 4); }, 22, "ctx is NULL"},
          {[&] { return checkHashValue(ctx, 1, nullptr, 32, b, 4); }, 22, "hash is NULL"},
          {[&] { return checkHashValue(ctx, 1, b, 0, b, 4); }, 22, "hash size is 0"},
          {[&] { return checkHashValue(ctx, 1, b, 513, nullptr, 0); }, 22, "hash size (513) is greater that 512"},
          {[&] { return checkHashValue(ctx, 1, b, 512, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkHashValue(ctx, 1, b, 4, b, 0); }, 22, "signature size is 0"},
          {[&] { return checkHashValue(ctx, 1, b, 4, b, over); }, 22, "signature size (67108865) is greater that 67108864"}}},
        {"signature_verifier_add_root_certificate",
         {{[&] { return addRoot(nullptr, nullptr, 0); }, 22, "ctx is NULL"},
          {[&] { return addRoot(ctx, nullptr, 4); }, 22, "cert is NULL"},
          {[&] { return addRoot(ctx, b, 0); }, 22, "cert size is 0"}}},
        {"signature_verifier_revoke_root_certificate",
         {{[&] { return revokeRoot(nullptr, b, 4); }, 22, "ctx is NULL"},
          {[&] { return revokeRoot(ctx, nullptr, 32); }, 22, "SKID is NULL"},
          {[&] { return revokeRoot(ctx, b, 0); }, 22, "SKID size is 0"}}},
        {"signature_verifier_set_crl_blob",
         {{[&] { return setCrl(nullptr, nullptr, 0); }, 22, "ctx is NULL"},
          {[&] { return setCrl(ctx, nullptr, 4); }, 22, "CRL must be NULL same time as CRL Size is 0"},
          {[&] { return setCrl(ctx, b, 0); }, 22, "CRL must be NULL same time as CRL Size is 0"}}},
        {"signature_verifier_get_certificate_identifier",
         {{[&] { return identifier(nullptr, 4, skid, &size); }, 22, "cert is NULL"},
          {[&] { return identifier(b, 0, skid, &size); }, 22, "cert size is 0"},
          {[&] { return identifier(b, 4, skid, nullptr); }, 22, "SKID size is NULL"},
          {[&] { return size = 31, identifier(b, 4, skid, &size); }, 75, ""}}},
        {"signature_verifier_hash_create", {{[&] { return signature_verifier_hash_create(nullptr); }, 22, "hash_out is NULL"}}},
        {"signature_verifier_hash_buffer",
         {{[&] { return signature_verifier_hash_buffer(nullptr, b, 4); }, 22, "hash is NULL"},
          {[&] { return signature_verifier_hash_buffer(ctx, nullptr, 4); }, 22, "buffer and buffer size must both be not NULL"},
          {[&] { return signature_verifier_hash_buffer(ctx, b, 0); }, 22, "buffer and buffer size must both be not NULL"}}},
        {"signature_verifier_get_hash_value",
         {{[&] { return hashValue(nullptr, nullptr, nullptr); }, 22, "hash is NULL"},
          {[&] { return hashValue(ctx, nullptr, nullptr); }, 22, "hash size is NULL"}}},
        {"signature_verifier_check_hash",
         {{[&] { return checkHash(nullptr, nullptr, nullptr, 0); }, 22, "ctx is NULL"},
          {[&] { return checkHash(ctx, nullptr, b, 4); }, 22, "hash is NULL"},
          {[&] { return checkHash(ctx, ctx, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkHash(ctx, ctx, b, 0); }, 22, "signature size is 0"}}},
        {"signature_verifier_hash_close", {{[&] { return signature_verifier_hash_close(nullptr); }, 22, "hash is NULL"}}},
    };
    for (const int level : {NGLOG_LEVEL_WARNING, NGLOG_LEVEL_SILENT}) {
        nglog_set_level(level);
        for (const auto& [function, rows] : functions) {
            for (const Row& row : rows) {
                const bool logged = !row.text.empty() && level != NGLOG_LEVEL_SILENT;
                EXPECT_EQ(RunLogged(row.call), (Logged{row.status, Lines(logged, function + ": " + row.text)}));
            }
        }
    }
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(size, 32u) << "a buffer too small learns the size";
    EXPECT_EQ(Bytes(std::begin(skid), std::end(skid)), Bytes(31, 0));
}

// A connection that cannot be made or used: 13, the context left as it was
// and the channel given back (the test holds it too, so that a reference
// that init kept would show).
TEST_F(ClientTest, Init_NoUsableConnection_13AndNothingKept)
{
    test_support::FakePeer noEndpoint("sv.no-endpoint", {"other.endpoint"}, nullptr);
    test_support::FakeSignatureVerifier entity;
    const std::string failed = "signature_verifier_init: failed to connect to the server";
    const struct {
        const char* channel;
        bool failTransport;
        std::vector<std::string> lines;
    } rows[] = {
        {"sv.nobody", false, {"service_connect: ServiceLocatorConnect invalid handle", failed}},
        {"sv.no-endpoint", false, {"service_connect: ServiceLocatorGetRiid invalid riid", failed}},
        {kName, true, {failed}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.channel);
        const Handle held = ServiceLocatorConnect(row.channel);
        void* ctx = &entity;
        Seams::failTransportInit = row.failTransport;
        EXPECT_EQ(RunLogged([&] { return init(row.channel, &ctx); }), (Logged{13, row.lines}));
        EXPECT_EQ(ctx, &entity);
        if (held != INVALID_HANDLE) {
            EXPECT_EQ(KnHandleClose(held), NK_EOK);
            EXPECT_EQ(KnHandleClose(held), NK_EBADF) << "init kept a reference on the channel";
        }
    }
}

// Each request as the entity receives it, as 32-bit words: riid (1, the
// endpoint's index on this channel) | mid << 16, the size, 16 zero bytes of
// header, then the fields; and the arena with the items one behind the other.
TEST_F(ClientTest, Requests_OnTheWire)
{
    test_support::FakePeer entity(kName, {"other.endpoint", NV_SIGNATURE_VERIFIER_ENDPOINT}, [](const Exchanged& in) {
        nv_SignatureVerifier_res reply{};
        std::memcpy(&reply, in.message.data(), 4);
        nk_msg_set_size(&reply.base, sizeof reply);
        return Exchanged{test_support::BytesOf(reply), {}};
    });
    void *ctx = nullptr, *hash = nullptr;
    ASSERT_EQ(init(kName, &ctx) + signature_verifier_hash_create(&hash), 0);
    const Bytes data = Text("package"), sig = Text("signature!"), blob = Text("DER bytes"), large(512, 0x5C);
    const struct {
        std::function<int()> call;
        std::vector<std::uint32_t> words;
        Bytes arena;
    } rows[] = {
        {[&] { return checkBuffer(ctx, data.data(), 7, sig.data(), 10); }, {1, 40, 0, 0, 0, 0, 0, 7, 7, 10}, Cat(data, sig)},
        {[&] { return checkBuffer(ctx, nullptr, 0, sig.data(), 10); }, {1, 40, 0, 0, 0, 0, 0, 0, 0, 10}, sig},
        {[&] { return checkHashValue(ctx, 7, large.data(), 512, sig.data(), 10); },
         {0x10001, 48, 0, 0, 0, 0, 7, 0, 512, 512, 10, 0}, Cat(large, sig)},
        {[&] { return checkHash(ctx, hash, sig.data(), 10); }, {0x10001, 48, 0, 0, 0, 0, 1, 0, 32, 32, 10, 0},
         Cat(Digest(GCRY_MD_STRIBOG256, {}), sig)},
        {[&] { return addRoot(ctx, blob.data(), 9); }, {0x20001, 32, 0, 0, 0, 0, 0, 9}, blob},
        {[&] { return revokeRoot(ctx, blob.data(), 9); }, {0x30001, 32, 0, 0, 0, 0, 0, 9}, blob},
        {[&] { return setCrl(ctx, blob.data(), 9); }, {0x40001, 32, 0, 0, 0, 0, 0, 9}, blob},
        {[&] { return setCrl(ctx, nullptr, 0); }, {0x40001, 32, 0, 0, 0, 0, 0, 0}, {}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(RunLogged(row.call), (Logged{0, {}}));
    const auto requests = entity.Requests();
    ASSERT_EQ(requests.size(), std::size(rows));
    for (std::size_t i = 0; i < requests.size(); ++i) {
        std::vector<std::uint32_t> words(requests[i].message.size() / 4);
        std::memcpy(words.data(), requests[i].message.data(), words.size() * 4);
        EXPECT_EQ(words, rows[i].words) << "row " << i;
        EXPECT_EQ(requests[i].arena, rows[i].arena) << "row " << i;
    }
    EXPECT_EQ(signature_verifier_hash_close(hash) + signature_verifier_destroy(ctx), 0);
}

// The answer to each request function as its status and line: a plain reply
// is success whatever its code field; an error reply's code c gives
// -((c << 15) | 0x4000) in 32 bits; a transport failure is returned as it
// is, and read as a code when bit 14 of its magnitude is set.
TEST_F(ClientTest, Requests_Answers_StatusAndLine)
{
    test_support::FakeSignatureVerifier entity;
    void* ctx = nullptr;
    ASSERT_EQ(init(kName, &ctx), 0);
    const Bytes b = Text("bytes"), largest(SIGNATURE_VERIFIER_MAX_DATA_SIZE);
    const std::pair<std::function<int()>, std::string> calls[] = {
        {[&] { return checkBuffer(ctx, b.data(), 5, b.data(), 5); }, "check_buffer: nv_SignatureVerifier_CheckBuffer"},
        {[&] { return checkHashValue(ctx, 1, b.data(), 5, b.data(), 5); }, "check_hash_value: nv_SignatureVerifier_CheckHash"},
        {[&] { return addRoot(ctx, b.data(), 5); }, "add_root_certificate: nv_SignatureVerifier_AddRootCertificate"},
        {[&] { return revokeRoot(ctx, b.data(), 5); }, "revoke_root_certificate: nv_SignatureVerifier_RevokeRootCertificate"},
        {[&] { return setCrl(ctx, b.data(), 5); }, "set_crl_blob: nv_SignatureVerifier_SetCRLBlob"},
        {[&] { return checkBuffer(ctx, largest.data(), largest.size(), b.data(), 5); }, ""},
    };
    const auto reply = [](std::uint32_t code, bool error = true) {
        return [=](Exchanged& answer) {
            nv_SignatureVerifier_res res{};
            std::memcpy(&res, answer.message.data(), sizeof res);
            res.base.size |= error ? NK_MSG_ERROR_FLAG : 0;
            res.completion_code = code;
            answer.message = test_support::BytesOf(res);
        };
    };
    const auto longer = [](Exchanged& answer) {
        answer.message.resize(40);
        nk_msg_set_size(reinterpret_cast<nk_message*>(answer.message.data()), 40);
    };
    const struct {
        std::size_t call;
        FakeMode mode;
        test_support::FakePeer::SpoilFn spoil;
        std::optional<Retcode> callResult;
        int status;
        std::string text;
    } rows[] = {
        {0, FakeMode::Answer, nullptr, {}, 0, ""},
        {1, FakeMode::Garbage, reply(7, false), {}, 0, ""},
        {0, FakeMode::Garbage, reply(1), {}, -49152, "invalid completion code 1"},
        {1, FakeMode::Garbage, reply(5), {}, -180224, "invalid completion code 5"},
        {2, FakeMode::Garbage, reply(0), {}, -16384, "invalid completion code 0"},
        {3, FakeMode::Garbage, reply(0xFFFF), {}, -2147467264, "invalid completion code 65535"},
        // Bit 16 of the code reaches the sign bit: the status comes out positive.
        {4, FakeMode::Garbage, reply(0x10000), {}, 2147467264, "invalid completion code 0"},
        {0, FakeMode::Garbage, longer, {}, NK_E2BIG, "invalid result -7"},
        {1, FakeMode::Answer, nullptr, NK_ETIMEDOUT, NK_ETIMEDOUT, "invalid result -110"},
        {2, FakeMode::Answer, nullptr, -311296, -311296, "invalid completion code 9"},
        {5, FakeMode::Answer, nullptr, NK_EOK, 0, ""},  // the largest data is sent
        {3, FakeMode::Close, nullptr, {}, NK_EPIPE, "invalid result -32"},
        {4, FakeMode::Answer, nullptr, {}, NK_EPIPE, "invalid result -32"},  // the connection stays broken
    };
    for (const auto& row : rows) {
        const auto& [call, name] = calls[row.call];
        SCOPED_TRACE(name + ", " + row.text);
        entity.SetMode(row.mode, row.spoil);
        Seams::callResult = row.callResult;
        const std::string line = "signature_verifier_" + name + ", " + row.text;
        EXPECT_EQ(RunLogged(call), (Logged{row.status, Lines(!row.text.empty(), line)}));
    }
    EXPECT_EQ(signature_verifier_destroy(ctx), 0);
}

// A hash context: pieces add up, a size query does not finalise, a buffer
// too small is refused with the size, the digest is taken once, a positive
// status of check_hash's inner check is success, and close gives the library
// reference back. The identifier of a blob is its SHA-256.
TEST_F(ClientTest, HashContextAndIdentifier)
{
    void* hash = nullptr;
    ASSERT_EQ(signature_verifier_hash_create(&hash), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 1);
    const Bytes text = Text("The quick brown fox jumps over the lazy dog");
    std::size_t size = 0;
    ASSERT_EQ(signature_verifier_hash_buffer(hash, text.data(), 20) + hashValue(hash, nullptr, &size), 0);
    EXPECT_EQ(size, 32u);
    ASSERT_EQ(signature_verifier_hash_buffer(hash, text.data() + 20, text.size() - 20), 0);
    Bytes digest(33, 0xAA);
    size = 31;
    EXPECT_EQ(RunLogged([&] { return hashValue(hash, digest.data(), &size); }),
              (Logged{22, {"signature_verifier_get_hash_value: too small hash buffer"}}));
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(digest, Bytes(33, 0xAA));
    ASSERT_EQ(hashValue(hash, digest.data(), &size), 0);
    EXPECT_EQ(Cat(Digest(GCRY_MD_STRIBOG256, text), {0xAA}), digest);
    EXPECT_EQ(RunLogged([&] { return signature_verifier_hash_buffer(hash, "x", 1); }),
              (Logged{14, {"signature_verifier_hash_buffer: Can't hash data: -2"}}));
    const std::string cannot = "signature_verifier_get_hash_value: Can't get hash value: -2";
    EXPECT_EQ(RunLogged([&] { return hashValue(hash, digest.data(), &size); }), (Logged{14, {cannot}}));
    EXPECT_EQ(RunLogged([&] { return checkHash(&size, hash, "s", 0x4000001); }),
              (Logged{0, {cannot, "signature_verifier_check_hash_value: signature size (67108865) is greater that 67108864"}}));
    EXPECT_EQ(signature_verifier_hash_close(hash), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);

    Bytes skid(32);
    EXPECT_EQ(identifier(text.data(), text.size(), skid.data(), &size), 0);
    EXPECT_EQ(skid, Digest(GCRY_MD_SHA256, text));
    EXPECT_EQ(identifier(text.data(), text.size(), nullptr, &(size = 0)), 0);
    EXPECT_EQ(size, 32u);
}

}  // namespace
}  // namespace signature_verifier::testing
