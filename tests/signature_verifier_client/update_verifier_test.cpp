// UpdateVerifier: hashing files in chunks, its failures as result codes with
// their log lines, and signed package files checked by the real entity.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>
#include <signature_verifier/update_verifier.h>

#include "entity_support.h"

// The test executable is linked with --wrap=signature_verifier_hash_buffer,
// so that the chunks the wrapper hashes can be seen.
namespace {
std::vector<std::size_t>* g_hashedChunks = nullptr;
}  // namespace

extern "C" int __real_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size);

extern "C" int __wrap_signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size)
{
    if (g_hashedChunks != nullptr)
        g_hashedChunks->push_back(size);
    return __real_signature_verifier_hash_buffer(hash, buffer, size);
}

namespace signature_verifier::client::testing {
namespace {

using host::testing::ReadBytes;
using host::testing::Streebog256;
using host::testing::ToBytes;
using host::testing::WriteBytes;

constexpr std::size_t kChunk = 0x4000000;

// The line of the wrapper's funnel for a failed library call.
std::string CallFailedLine(int status, const char* operation)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%08x", static_cast<unsigned>(status));
    return std::string("Expression failed: ") + code + " (Unknown result code) ; detailed: exception during: " +
           operation + "\n";
}

std::string CodeLine(const char* function, const char* method, unsigned code)
{
    return std::string(function) + ": " + method + ", invalid completion code " + std::to_string(code) + "\n";
}

std::filesystem::path WriteIn(const host::testing::TempDir& dir, const std::string& name, const ByteVector& bytes)
{
    const auto path = dir.Path() / name;
    WriteBytes(path, bytes);
    return path;
}

const std::string kNoEntityLines =
    "service_connect: ServiceLocatorConnect invalid handle\n"
    "signature_verifier_init: failed to connect to the server\n";

class UpdateVerifierTest : public ClientTest {
protected:
    void SetUp() override
    {
        ClientTest::SetUp();
        g_hashedChunks = &chunks;
    }
    void TearDown() override
    {
        g_hashedChunks = nullptr;
        ClientTest::TearDown();
    }

    std::filesystem::path Write(const std::string& name, const ByteVector& bytes)
    {
        return WriteIn(dir, name, bytes);
    }

    host::testing::TempDir dir{"update-verifier-test"};
    wrapper::UpdateVerifier verifier;
    std::vector<std::size_t> chunks;
};

TEST_F(UpdateVerifierTest, GetHash_FileSizes_ChunksOf64MiBAndA32ByteDigest)
{
    ByteVector bytes(kChunk + 1);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>((i * 2654435761u) >> 13);
    struct Case {
        std::size_t size;
        std::size_t hashBefore;
        std::vector<std::size_t> chunks;
    };
    const std::vector<Case> cases = {
        {0, 600, {}},
        {kChunk, 0, {kChunk}},
        {kChunk + 1, 31, {kChunk, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("file of " + std::to_string(c.size) + " bytes");
        const ByteVector content(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(c.size));
        const auto file = Write("file", content);
        chunks.clear();
        std::vector<std::uint8_t> hash(c.hashBefore, 0xEE);
        const Logged result = RunLogged([&] { return verifier.GetHash(file, hash); });
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.log, "");
        EXPECT_EQ(chunks, c.chunks);
        EXPECT_EQ(hash.size(), 32u);
        EXPECT_EQ(hash, Streebog256(content));
    }
}

TEST_F(UpdateVerifierTest, GetHash_UnreadablePaths_FailWithHashUntouched)
{
    std::filesystem::create_directory(dir.Path() / "a-directory");
    const std::string cannotOpen = "fail to open file file ; detailed: exception during: get_hash\n";
    struct Case {
        std::filesystem::path path;
        ::testing::Matcher<std::string> log;
    };
    const std::vector<Case> cases = {
        {dir.Path() / "missing", cannotOpen},
        // Whether a directory opens depends on the file system (ext4: it
        // does, with no usable size, and cannot be read; tmpfs: it does not).
        {dir.Path() / "a-directory",
         ::testing::AnyOf(cannotOpen, "fail to read file file ; detailed: exception during: get_hash\n")},
    };
    for (const Case& c : cases) {
        std::vector<std::uint8_t> hash{1, 2, 3};
        const Logged result = RunLogged([&] { return verifier.GetHash(c.path, hash); });
        EXPECT_EQ(static_cast<std::uint32_t>(result.status), 0x80000151u) << c.path;
        EXPECT_THAT(result.log, c.log);
        EXPECT_EQ(hash, (std::vector<std::uint8_t>{1, 2, 3}));
    }
    EXPECT_TRUE(chunks.empty()) << "nothing hashed, no loop over a meaningless size";
}

TEST_F(UpdateVerifierTest, VerifyAndVerifyHash_MissingFile_FailBeforeConnecting)
{
    const auto present = Write("present", ToBytes("bytes"));
    const auto missing = dir.Path() / "missing";
    const std::vector<std::uint8_t> hash(32, 1);
    struct Case {
        const char* name;
        std::function<int()> call;
        std::string log;
    };
    const std::vector<Case> cases = {
        {"data file", [&] { return verifier.Verify(missing, present); },
         "fail to open file file ; detailed: exception during: verify\n"},
        {"signature file", [&] { return verifier.Verify(present, missing); },
         "fail to open file file ; detailed: exception during: verify\n"},
        {"signature file of a hash", [&] { return verifier.VerifyHash(hash, missing); },
         "fail to open file file ; detailed: exception during: verify_hash\n"},
    };
    for (const Case& c : cases) {
        const Logged result = RunLogged(c.call);
        EXPECT_EQ(static_cast<std::uint32_t>(result.status), 0x80000151u) << c.name;
        EXPECT_EQ(result.log, c.log) << c.name;
    }
}

// The connection's status 13 leaves no context: "invalid context" by
// default; the strict build fails on the status itself, mapped from EACCES.
TEST_F(UpdateVerifierTest, VerifyAndVerifyHash_AbsentEntity_InvalidContext)
{
    const bool strict = VERIFIER_STRICT_SIGNATURE_STATUS != 0;
    const std::uint32_t code = strict ? 0x80000045u : 0x80000151u;
    const std::string failure = strict ? "Expression failedfail to initialize context: 0x80000045 (Access denied)"
                                       : "invalid context";
    const auto data = Write("data", ToBytes("bytes"));
    const auto signature = Write("signature", ToBytes("signature"));
    Logged result = RunLogged([&] { return verifier.Verify(data, signature); });
    EXPECT_EQ(static_cast<std::uint32_t>(result.status), code);
    EXPECT_EQ(result.log, kNoEntityLines + failure + " ; detailed: exception during: verify\n");

    result = RunLogged([&] { return verifier.VerifyHash(std::vector<std::uint8_t>(32, 1), signature); });
    EXPECT_EQ(static_cast<std::uint32_t>(result.status), code);
    EXPECT_EQ(result.log, kNoEntityLines + failure + " ; detailed: exception during: verify_hash\n");
}

// A package folder signed with the test PKI, checked by a real entity.
class UpdateVerifierEntityTest : public EntityTest {
protected:
    void SetUp() override
    {
        EntityTest::SetUp();
        StartEntity("roots");
        const Fixtures& f = Shared();
        json = dir.Path() / "appcollectioninfo.nos.vantor.json";
        archive = dir.Path() / "update_vantor3.tar.gz";
        WriteBytes(json, f.data);
        ByteVector archiveBytes(300 * 1024);
        for (std::size_t i = 0; i < archiveBytes.size(); ++i)
            archiveBytes[i] = static_cast<std::uint8_t>(i * 7 + (i >> 9));
        WriteBytes(archive, archiveBytes);
        using host::testing::ShellQuote;
        host::testing::RunOrThrow(
            ShellQuote((host::testing::SourceDir() / "scripts" / "sign-package").string()) + " " +
                ShellQuote(dir.Path().string()) + " --cert " + ShellQuote(f.pki.File("signer.pem").string()) +
                " --key " + ShellQuote(f.pki.File("signer.key").string()) + " --chain " +
                ShellQuote(f.pki.File("chain.pem").string()),
            dir.Path() / "sign.log");
        jsonSignature = dir.Path() / "appcollectioninfo.nos.vantor.json.sign";
        archiveSignature = dir.Path() / "update_vantor3.sign";
    }

    // Hashes the file and checks the hash against the signature, as the
    // update archive is checked.
    Logged CheckArchive(const std::filesystem::path& file, const std::filesystem::path& signature)
    {
        return RunLogged([&] {
            std::vector<std::uint8_t> hash;
            const int hashed = verifier.GetHash(file, hash);
            return hashed != 0 ? hashed : verifier.VerifyHash(hash, signature);
        });
    }

    std::filesystem::path Write(const std::string& name, const ByteVector& bytes)
    {
        return WriteIn(dir, name, bytes);
    }

    host::testing::TempDir dir{"update-verifier-package"};
    wrapper::UpdateVerifier verifier;
    std::filesystem::path json, archive, jsonSignature, archiveSignature;
};

ByteVector Flipped(ByteVector bytes, std::size_t at)
{
    bytes.at(at) ^= 0x01;
    return bytes;
}

TEST_F(UpdateVerifierEntityTest, SignedPackage_Accepted)
{
    Logged result = RunLogged([&] { return verifier.Verify(json, jsonSignature); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.log, "");
    result = CheckArchive(archive, archiveSignature);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.log, "");
}

TEST_F(UpdateVerifierEntityTest, TamperedPackage_RefusedWithItsCode)
{
    const Fixtures& f = Shared();
    {
        // With the intermediate's revocation list in force.
        void* ctx = nullptr;
        ASSERT_EQ(signature_verifier_init(SIGNATURE_VERIFIER_SERVICE_NAME, &ctx), 0);
        const ByteVector crl = ReadBytes(f.pki.File("crl.der"));
        EXPECT_EQ(signature_verifier_set_crl_blob(ctx, crl.data(), crl.size()), 0);
        signature_verifier_destroy(ctx);
    }
    const ByteVector jsonBytes = ReadBytes(json);
    const ByteVector jsonSign = ReadBytes(jsonSignature);
    const ByteVector archiveBytes = ReadBytes(archive);
    const ByteVector archiveSign = ReadBytes(archiveSignature);
    struct Case {
        const char* name;
        bool archivePath; // hashed and checked by hash, else checked whole
        ByteVector data;
        ByteVector signature;
        unsigned code;
    };
    const std::vector<Case> cases = {
        {"list byte flipped", false, Flipped(jsonBytes, 3), jsonSign, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"list signature byte flipped", false, jsonBytes, Flipped(jsonSign, jsonSign.size() - 2),
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"list with the archive's signature", false, jsonBytes, archiveSign,
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"list signed under another root", false, jsonBytes, f.pki.SignPackage(jsonBytes, "wrong-signer"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
        {"list signed by a revoked signer", false, jsonBytes, f.pki.SignPackage(jsonBytes, "revoked-signer"),
         NV_SIGNATURE_VERIFIER_CC_REVOKED},
        {"list signature cut short", false, jsonBytes, ByteVector(jsonSign.begin(), jsonSign.begin() + 100),
         NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"archive byte flipped", true, Flipped(archiveBytes, archiveBytes.size() - 1), archiveSign,
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"archive signature byte flipped", true, archiveBytes, Flipped(archiveSign, archiveSign.size() - 2),
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"archive with the list's signature", true, archiveBytes, jsonSign,
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"archive signed under another root", true, archiveBytes, f.pki.SignPackage(archiveBytes, "wrong-signer"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
    };
    for (const Case& c : cases) {
        const auto data = Write("tampered.data", c.data);
        const auto signature = Write("tampered.sign", c.signature);
        const int expected = CompletionStatus(c.code);
        const Logged result = c.archivePath ? CheckArchive(data, signature)
                                            : RunLogged([&] { return verifier.Verify(data, signature); });
        EXPECT_EQ(result.status, expected) << c.name;
        const std::string expectedLog =
            c.archivePath ? CodeLine("signature_verifier_check_hash_value", "nv_SignatureVerifier_CheckHash", c.code) +
                                CallFailedLine(expected, "verify_hash")
                          : CodeLine("signature_verifier_check_buffer", "nv_SignatureVerifier_CheckBuffer", c.code) +
                                CallFailedLine(expected, "verify");
        EXPECT_EQ(result.log, expectedLog) << c.name;
    }
    EXPECT_EQ(CheckArchive(archive, archiveSignature).status, 0) << "the untouched package still passes";
}

// Local refusals of the client library are positive statuses, which the
// wrapper counts as success: this is the designed behaviour.
TEST_F(UpdateVerifierEntityTest, LocalRefusals_CountAsSuccess)
{
    if (VERIFIER_STRICT_SIGNATURE_STATUS)
        GTEST_SKIP() << "the strict build fails these calls: LocalRefusals_StatusRuleOfTheBuild";
    const auto empty = Write("empty.sign", {});
    Logged result = RunLogged([&] { return verifier.Verify(json, empty); });
    EXPECT_EQ(result.status, 0);
    // The empty file gives an empty vector, whose data pointer is null.
    EXPECT_EQ(result.log, "signature_verifier_check_buffer: signature is NULL\n");

    result = RunLogged([&] { return verifier.VerifyHash({}, archiveSignature); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.log, "signature_verifier_check_hash_value: hash is NULL\n");

    const auto large = Write("large", ByteVector(kChunk + 1, 0x11));
    result = RunLogged([&] { return verifier.Verify(large, jsonSignature); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.log, "signature_verifier_check_buffer: buffer size (67108865) is greater that 67108864\n");
}

// The same refusals under the rule this library was built with: success
// by default; with VERIFIER_STRICT_SIGNATURE_STATUS the errno value 22
// mapped to "Invalid argument", and the hash left as it was.
TEST_F(UpdateVerifierEntityTest, LocalRefusals_StatusRuleOfTheBuild)
{
    const bool strict = VERIFIER_STRICT_SIGNATURE_STATUS != 0;
    const auto empty = Write("empty.sign", {});
    const auto large = Write("large", ByteVector(kChunk + 1, 0x11));
    const auto strictLine = [strict](const char* operation) {
        return strict ? std::string("Expression failed: 0x80000046 (Invalid argument) ; detailed: exception during: ") +
                            operation + "\n"
                      : std::string();
    };
    struct Case {
        const char* name;
        std::function<int()> call;
        std::string refusal;
        const char* operation;
    };
    const std::vector<Case> cases = {
        {"empty signature file", [&] { return verifier.Verify(json, empty); },
         "signature_verifier_check_buffer: signature is NULL\n", "verify"},
        {"empty signature file, by hash",
         [&] {
             std::vector<std::uint8_t> hash(32, 0x5A);
             return verifier.VerifyHash(hash, empty);
         },
         "signature_verifier_check_hash_value: signature is NULL\n", "verify_hash"},
        {"empty hash", [&] { return verifier.VerifyHash({}, archiveSignature); },
         "signature_verifier_check_hash_value: hash is NULL\n", "verify_hash"},
        {"oversized hash", [&] { return verifier.VerifyHash(std::vector<std::uint8_t>(513, 1), archiveSignature); },
         "signature_verifier_check_hash_value: hash size (513) is greater that 512\n", "verify_hash"},
        {"data above 64 MiB", [&] { return verifier.Verify(large, jsonSignature); },
         "signature_verifier_check_buffer: buffer size (67108865) is greater that 67108864\n", "verify"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Logged result = RunLogged(c.call);
        EXPECT_EQ(static_cast<std::uint32_t>(result.status), strict ? 0x80000046u : 0u);
        EXPECT_EQ(result.log, c.refusal + strictLine(c.operation));
    }
    // A real check is unaffected by the rule.
    EXPECT_EQ(RunLogged([&] { return verifier.Verify(json, jsonSignature); }).status, 0);
}

}  // namespace
}  // namespace signature_verifier::client::testing
