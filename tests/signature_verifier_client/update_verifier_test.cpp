// UpdateVerifier: files hashed in 64 MiB chunks, what it asks of the entity,
// and every outcome as a result code with its log lines.
#include <nds/nds.h>
#include <signature_verifier/signature_verifier_idl.h>
#include <signature_verifier/update_verifier.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "client_fixture.h"
#include "support/fake_peer.h"

namespace signature_verifier::testing {
namespace {

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
        Seams::onChunk = [&](const void*, std::size_t size) {
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
    const auto getHash = [&](fs::path file, void (*chunk)(const void*, std::size_t)) {
        return [=, this, &out] { return Seams::onChunk = chunk, verifier.GetHash(file, out); };
    };
    const auto during = [](const std::string& text, const std::string& operation) {
        return text + " ; detailed: exception during: " + operation;
    };
    const auto unreachable = [&](const char* operation) {
        return std::vector<std::string>{
            "service_connect: ServiceLocatorConnect invalid handle", "signature_verifier_init: failed to connect to the server",
            during(kStrict ? "Expression failedfail to initialize context: 0x80000045 (Access denied)" : "invalid context",
                   operation)};
    };
    // A positive status of the library passes by default; the strict build
    // fails on it with the code of the errno value.
    const auto refusedHere = [&](const std::string& line, const char* operation) {
        return kStrict ? std::vector<std::string>{line, during("Expression failed: 0x80000046 (Invalid argument)", operation)}
                       : std::vector<std::string>{line};
    };
    const std::uint32_t noContext = kStrict ? 0x80000045 : 0x80000151, refused = kStrict ? 0x80000046 : 0;
    const bool dirOpens = std::ifstream(dir).is_open();  // on some file systems
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
        {"verify_hash, no entity", kNone, verifyHash(hash, sigFile), noContext, unreachable("verify_hash"), {}},
        {"verify, no data file", kPasses, verify(missing, sigFile), 0x80000151, {during("fail to open file file", "verify")}, {}},
        {"verify, no signature file", kPasses, verify(dataFile, missing), 0x80000151,
         {during("fail to open file file", "verify")}, {}},
        {"verify_hash, no signature file", kPasses, verifyHash(hash, missing), 0x80000151,
         {during("fail to open file file", "verify_hash")}, {}},
        {"get_hash, no file", kNone, getHash(missing, nullptr), 0x80000151, {during("fail to open file file", "get_hash")}, {}},
        {"get_hash, a directory: never hashed for ever", kNone, getHash(dir, nullptr), 0x80000151,
         {during(dirOpens ? "fail to read file file" : "fail to open file file", "get_hash")}, {}},
        {"verify, empty signature file", kPasses, verify(dataFile, empty), refused,
         refusedHere("signature_verifier_check_buffer: signature is NULL", "verify"), {}},
        {"verify_hash, empty hash", kPasses, verifyHash({}, sigFile), refused,
         refusedHere("signature_verifier_check_hash_value: hash is NULL", "verify_hash"), {}},
        {"verify_hash, 513-byte hash", kPasses, verifyHash(Bytes(513), sigFile), refused,
         refusedHere("signature_verifier_check_hash_value: hash size (513) is greater that 512", "verify_hash"), {}},
        {"get_hash, a standard exception", kNone,
         getHash(dataFile, [](const void*, std::size_t) { throw std::runtime_error("x"); }), 0x8000004B,
         {"x ; detailed: exception during get_hash"}, {}},
        {"get_hash, anything else thrown", kNone, getHash(dataFile, [](const void*, std::size_t) { throw 5; }), 0x80000072,
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
