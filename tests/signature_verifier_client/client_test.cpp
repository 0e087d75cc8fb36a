// The client library of the signature-verifier entity and the UpdateVerifier
// over it, against tests/support's fakes of the entity: the library's checks,
// requests and answers, hash contexts and identifiers; the wrapper's chunked
// hashing and outcomes. The program is linked with --wrap for two seams: the
// transports the library binds, and the chunks the wrapper hashes.
#include <gcrypt.h>
#include <gtest/gtest.h>
#include <nds/nds.h>
#include <nglog/nglog.h>
#include <nos/kernel.h>
#include <nos/service_locator.h>
#include <nos/transport.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>
#include <signature_verifier/update_verifier.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>

#include "support/fake_peer.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"

namespace {
bool g_failTransportInit = false;
std::optional<Retcode> g_callResult;         // when set, a call is not made and returns this
std::function<void(std::size_t)> g_onChunk;  // sees the size of each chunk before it is hashed; may throw
}  // namespace

extern "C" {
Retcode __real_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags);
int __real_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size);

// A bound transport gets the platform's operations, its call through g_callResult.
Retcode __wrap_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags)
{
    if (g_failTransportInit)
        return NK_EBADF;
    const Retcode rc = __real_NkNosTransport_Init(t, handle, options, flags);
    static const NkNosTransportOps* const platform = t->ops;
    static const NkNosTransportOps routed = [] {
        NkNosTransportOps ops = *platform;
        ops.call = [](NkNosTransport* self, const nk_message* req, const nk_arena* reqArena, nk_message* res,
                      nk_arena* resArena) {
            return g_callResult ? *g_callResult : platform->call(self, req, reqArena, res, resArena);
        };
        return ops;
    }();
    if (rc == NK_EOK)
        t->ops = &routed;
    return rc;
}

int __wrap_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size)
{
    if (g_onChunk)
        g_onChunk(size);
    return __real_signature_verifier_hash_buffer(hash, buffer, size);
}
}

namespace signature_verifier::testing {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A call's status and the lines it wrote to standard error, but the host platform's.
struct Logged {
    int status;
    std::vector<std::string> lines;
    bool operator==(const Logged&) const = default;
};

Logged RunLogged(const std::function<int()>& call)
{
    test_support::LogCapture log;
    Logged logged{};
    {
        test_support::StderrCapture capture(log);
        logged.status = call();
    }
    for (const auto& line : log.Lines()) {
        if (line.text.rfind("[nos-host]", 0) != 0)
            logged.lines.push_back(line.text);
    }
    return logged;
}

// `line` alone, or no line.
std::vector<std::string> Lines(bool logged, const std::string& line)
{
    return logged ? std::vector<std::string>{line} : std::vector<std::string>{};
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }

// A digest through libgcrypt.
Bytes Digest(int algorithm, const Bytes& data)
{
    EXPECT_NE(gcry_check_version(nullptr), nullptr);
    Bytes digest(gcry_md_get_algo_dlen(algorithm));
    gcry_md_hash_buffer(algorithm, digest.data(), data.data(), data.size());
    return digest;
}

class ClientTest : public test_support::RuntimeDirTest {
protected:
    void SetUp() override
    {
        nglog_init(nullptr, NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_WARNING);
        nglog_enable_extended_prefix(0);
    }
    void TearDown() override
    {
        g_failTransportInit = false;
        g_callResult.reset();
        g_onChunk = nullptr;
    }
};

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
    const std::string both = "buffer and buffer size must both be NULL or not NULL",
                      notNull = "buffer and buffer size must both be not NULL",
                      over64 = " (67108865) is greater that 67108864";
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
          {[&] { return checkBuffer(ctx, nullptr, 5, b, 4); }, 22, both},
          {[&] { return checkBuffer(ctx, b, 0, b, 4); }, 22, both},
          {[&] { return checkBuffer(ctx, b, over, nullptr, 0); }, 22, "buffer size" + over64},
          {[&] { return checkBuffer(ctx, b, 4, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkBuffer(ctx, nullptr, 0, b, 0); }, 22, "signature size is 0"},
          {[&] { return checkBuffer(ctx, b, 4, b, over); }, 22, "signature size" + over64}}},
        {"signature_verifier_check_hash_value",
         {{[&] { return checkHashValue(nullptr, 1, nullptr, 0, b, 4); }, 22, "ctx is NULL"},
          {[&] { return checkHashValue(ctx, 1, nullptr, 32, b, 4); }, 22, "hash is NULL"},
          {[&] { return checkHashValue(ctx, 1, b, 0, b, 4); }, 22, "hash size is 0"},
          {[&] { return checkHashValue(ctx, 1, b, 513, nullptr, 0); }, 22, "hash size (513) is greater that 512"},
          {[&] { return checkHashValue(ctx, 1, b, 512, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkHashValue(ctx, 1, b, 4, b, 0); }, 22, "signature size is 0"},
          {[&] { return checkHashValue(ctx, 1, b, 4, b, over); }, 22, "signature size" + over64}}},
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
        {"signature_verifier_hash_create",
         {{[&] { return signature_verifier_hash_create(nullptr); }, 22, "hash_out is NULL"}}},
        {"signature_verifier_hash_buffer",
         {{[&] { return signature_verifier_hash_buffer(nullptr, b, 4); }, 22, "hash is NULL"},
          {[&] { return signature_verifier_hash_buffer(ctx, nullptr, 4); }, 22, notNull},
          {[&] { return signature_verifier_hash_buffer(ctx, b, 0); }, 22, notNull}}},
        {"signature_verifier_get_hash_value",
         {{[&] { return hashValue(nullptr, nullptr, nullptr); }, 22, "hash is NULL"},
          {[&] { return hashValue(ctx, nullptr, nullptr); }, 22, "hash size is NULL"}}},
        {"signature_verifier_check_hash",
         {{[&] { return checkHash(nullptr, nullptr, nullptr, 0); }, 22, "ctx is NULL"},
          {[&] { return checkHash(ctx, nullptr, b, 4); }, 22, "hash is NULL"},
          {[&] { return checkHash(ctx, ctx, nullptr, 4); }, 22, "signature is NULL"},
          {[&] { return checkHash(ctx, ctx, b, 0); }, 22, "signature size is 0"}}},
        {"signature_verifier_hash_close",
         {{[&] { return signature_verifier_hash_close(nullptr); }, 22, "hash is NULL"}}},
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
        g_failTransportInit = row.failTransport;
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
        {[&] { return checkBuffer(ctx, data.data(), 7, sig.data(), 10); }, {1, 40, 0, 0, 0, 0, 0, 7, 7, 10},
         Cat(data, sig)},
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
        {[&] { return checkHashValue(ctx, 1, b.data(), 5, b.data(), 5); },
         "check_hash_value: nv_SignatureVerifier_CheckHash"},
        {[&] { return addRoot(ctx, b.data(), 5); }, "add_root_certificate: nv_SignatureVerifier_AddRootCertificate"},
        {[&] { return revokeRoot(ctx, b.data(), 5); },
         "revoke_root_certificate: nv_SignatureVerifier_RevokeRootCertificate"},
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
        g_callResult = row.callResult;
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
              (Logged{0, {cannot, "signature_verifier_check_hash_value: signature size (67108865) is greater that "
                                  "67108864"}}));
    EXPECT_EQ(signature_verifier_hash_close(hash), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);

    Bytes skid(32);
    EXPECT_EQ(identifier(text.data(), text.size(), skid.data(), &size), 0);
    EXPECT_EQ(skid, Digest(GCRY_MD_SHA256, text));
    EXPECT_EQ(identifier(text.data(), text.size(), nullptr, &(size = 0)), 0);
    EXPECT_EQ(size, 32u);
}

namespace fs = std::filesystem;

constexpr std::size_t kChunk = 0x4000000;
constexpr bool kStrict = VERIFIER_STRICT_SIGNATURE_STATUS != 0;

class UpdateVerifierTest : public ClientTest {
protected:
    fs::path Write(const std::string& name, const Bytes& bytes)
    {
        std::ofstream(runtime.Path() / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return runtime.Path() / name;
    }

    wrapper::UpdateVerifier verifier;
};

// One file, cut down from row to row: the chunks hashed and the digest,
// whatever size the hash had. In the first row the file loses its last byte
// once its first chunk is hashed: that byte is hashed as a zero, not as what
// the chunk buffer held before.
TEST_F(UpdateVerifierTest, GetHash_FileSizes_ChunksAndDigest)
{
    Bytes content(kChunk + 2);
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<std::uint8_t>((i * 2654435761u) >> 13 | 1);
    const fs::path file = Write("file", content);
    gcry_md_hd_t first = nullptr;  // libgcrypt's, to go on from the first 64 MiB
    ASSERT_TRUE(gcry_check_version(nullptr) != nullptr && gcry_md_open(&first, GCRY_MD_STRIBOG256, 0) == 0);
    gcry_md_write(first, content.data(), kChunk);
    const auto firstAnd = [&](const Bytes& tail) {
        gcry_md_hd_t h = nullptr;
        EXPECT_EQ(gcry_md_copy(&h, first), 0u);
        gcry_md_write(h, tail.data(), tail.size());
        Bytes digest(gcry_md_read(h, 0), gcry_md_read(h, 0) + 32);
        gcry_md_close(h);
        return digest;
    };
    const struct {
        std::size_t size, shrinkTo;
        std::vector<std::size_t> chunks;
        Bytes digest;
    } rows[] = {
        {kChunk + 2, kChunk + 1, {kChunk, 2}, firstAnd({content[kChunk], 0})},
        {kChunk + 1, 0, {kChunk, 1}, firstAnd({content[kChunk]})},
        {kChunk, 0, {kChunk}, firstAnd({})},
        {0, 0, {}, Digest(GCRY_MD_STRIBOG256, {})},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        fs::resize_file(file, row.size);
        std::vector<std::size_t> chunks;
        g_onChunk = [&](std::size_t size) {
            chunks.push_back(size);
            if (row.shrinkTo != 0)
                fs::resize_file(file, row.shrinkTo);
        };
        std::vector<std::uint8_t> hash(row.size == 0 ? 600 : 31, 0xEE);
        EXPECT_EQ(RunLogged([&] { return verifier.GetHash(file, hash); }), (Logged{0, {}}));
        EXPECT_EQ(chunks, row.chunks);
        EXPECT_EQ(hash, row.digest);
    }
    gcry_md_close(first);
}

// Each outcome of the three operations: the result code, the lines logged
// (none at level 0), the one request the entity received, if any, and the
// hash library's reference given back. The entity passes every check, or
// refuses it with completion code 3, or is not there.
TEST_F(UpdateVerifierTest, Operations_Outcomes)
{
    const Bytes data = Text("data"), sig = Text("sig"), hash(32, 0x5A);
    const fs::path dataFile = Write("data", data), sigFile = Write("data.sign", sig), empty = Write("empty", {});
    const fs::path missing = runtime.Path() / "missing", dir = runtime.Path() / "dir";
    fs::create_directory(dir);
    std::vector<std::uint8_t> out{1, 2, 3};
    const auto verify = [&](fs::path file, fs::path s) { return [=, this] { return verifier.Verify(file, s); }; };
    const auto verifyHash = [&](Bytes h, fs::path s) { return [=, this] { return verifier.VerifyHash(h, s); }; };
    const auto getHash = [&](fs::path file, void (*chunk)(std::size_t)) {
        return [=, this, &out] { return g_onChunk = chunk, verifier.GetHash(file, out); };
    };
    const auto during = [](const std::string& text, const std::string& operation) {
        return text + " ; detailed: exception during: " + operation;
    };
    const auto unreachable = [&](const char* operation) {
        return std::vector<std::string>{
            "service_connect: ServiceLocatorConnect invalid handle",
            "signature_verifier_init: failed to connect to the server",
            during(kStrict ? "Expression failedfail to initialize context: 0x80000045 (Access denied)"
                           : "invalid context",
                   operation)};
    };
    // A positive status of the library passes by default; the strict build
    // fails on it with the code of the errno value.
    const auto refusedHere = [&](const std::string& line, const char* operation) {
        const std::string failed = during("Expression failed: 0x80000046 (Invalid argument)", operation);
        return kStrict ? std::vector<std::string>{line, failed} : std::vector<std::string>{line};
    };
    const std::uint32_t noContext = kStrict ? 0x80000045 : 0x80000151, refused = kStrict ? 0x80000046 : 0;
    // Opened as GetHash opens a file, at its end; whether a directory opens depends on the file system.
    const bool dirOpens = std::ifstream(dir, std::ios::binary | std::ios::ate).is_open();
    enum Entity { kNone, kPasses, kRefuses };
    const struct {
        const char* name;
        Entity entity;
        std::function<int()> call;
        std::uint32_t code;
        std::vector<std::string> lines;
        Bytes sent;  // the request's arena; nothing sent when empty
    } rows[] = {
        {"verify", kPasses, verify(dataFile, sigFile), 0, {}, Cat(data, sig)},
        {"verify_hash", kPasses, verifyHash(hash, sigFile), 0, {}, Cat(hash, sig)},
        {"verify refused", kRefuses, verify(dataFile, sigFile), 0xFFFE4000,
         {"signature_verifier_check_buffer: nv_SignatureVerifier_CheckBuffer, invalid completion code 3",
          during("Expression failed: 0xfffe4000 (Unknown result code)", "verify")},
         Cat(data, sig)},
        {"verify_hash refused", kRefuses, verifyHash(hash, sigFile), 0xFFFE4000,
         {"signature_verifier_check_hash_value: nv_SignatureVerifier_CheckHash, invalid completion code 3",
          during("Expression failed: 0xfffe4000 (Unknown result code)", "verify_hash")},
         Cat(hash, sig)},
        {"verify, no entity", kNone, verify(dataFile, sigFile), noContext, unreachable("verify"), {}},
        {"verify, no data file", kPasses, verify(missing, sigFile), 0x80000151,
         {during("fail to open file file", "verify")}, {}},
        {"verify_hash, no signature file", kPasses, verifyHash(hash, missing), 0x80000151,
         {during("fail to open file file", "verify_hash")}, {}},
        {"get_hash, no file", kNone, getHash(missing, nullptr), 0x80000151,
         {during("fail to open file file", "get_hash")}, {}},
        {"get_hash, a directory: never hashed for ever", kNone, getHash(dir, nullptr), 0x80000151,
         {during(dirOpens ? "fail to read file file" : "fail to open file file", "get_hash")}, {}},
        {"verify, empty signature file", kPasses, verify(dataFile, empty), refused,
         refusedHere("signature_verifier_check_buffer: signature is NULL", "verify"), {}},
        {"verify_hash, empty hash", kPasses, verifyHash({}, sigFile), refused,
         refusedHere("signature_verifier_check_hash_value: hash is NULL", "verify_hash"), {}},
        {"get_hash, a standard exception", kNone,
         getHash(dataFile, [](std::size_t) { throw std::runtime_error("x"); }), 0x8000004B,
         {"x ; detailed: exception during get_hash"}, {}},
        {"get_hash, anything else thrown", kNone, getHash(dataFile, [](std::size_t) { throw 5; }), 0x80000072,
         {"detailed: Unknown exception type during get_hash"}, {}},
    };
    for (const int level : {NGLOG_LEVEL_WARNING, NGLOG_LEVEL_SILENT}) {
        nglog_set_level(level);
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            std::optional<test_support::FakeSignatureVerifier> entity;
            if (row.entity != kNone)
                entity.emplace(row.entity == kRefuses ? 3u : 0u);
            const Logged logged = RunLogged(row.call);
            EXPECT_EQ(static_cast<std::uint32_t>(logged.status), row.code);
            EXPECT_EQ(logged.lines, level == NGLOG_LEVEL_SILENT ? std::vector<std::string>{} : row.lines);
            EXPECT_EQ(NdsIsInitializedLibrary(), 0);
            const auto requests = entity ? entity->Requests() : std::vector<test_support::Exchanged>{};
            ASSERT_EQ(requests.size(), row.sent.empty() ? 0u : 1u);
            if (!row.sent.empty()) {
                EXPECT_EQ(requests[0].arena, row.sent);
                const bool byHash = requests[0].message.size() == sizeof(nv_SignatureVerifier_CheckHash_req);
                EXPECT_EQ(byHash ? requests[0].message[24] : 1, 1) << "the algorithm";
            }
        }
    }
    EXPECT_EQ(out, (std::vector<std::uint8_t>{1, 2, 3})) << "a failed GetHash leaves the hash as it was";
}

}  // namespace
}  // namespace signature_verifier::testing
