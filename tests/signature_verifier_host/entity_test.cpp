// The signature-verifier entity as a real process, spoken to through the host
// platform with the wire layouts of the interface.

#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

#include "entity_process.h"

namespace signature_verifier::host::testing {
namespace {

// One PKI and one runtime directory per test suite, shared by its tests.
struct SuiteEnvironment {
    TempDir dir{"signature-verifier-entity-test"};
    TestPki pki{dir.Path() / "pki"};
    std::filesystem::path runtime = dir.Path() / "runtime";
    ByteVector data = ToBytes("{\"applications\": []}\n");
    ByteVector goodSignature = pki.SignPackage(data);

    SuiteEnvironment()
    {
        std::filesystem::create_directories(runtime);
        // The platform calls of this process and of the entity it starts meet there.
        setenv("NOS_RUNTIME_DIR", runtime.c_str(), 1);
        // A wedged entity fails a call instead of hanging the test.
        setenv("NOS_CALL_TIMEOUT_MS", "30000", 1);
    }
};

class EntityTestBase : public ::testing::Test {
protected:
    // Made by the suite's first test (a failure there fails the test, where
    // one in SetUpTestSuite would only skip it) and dropped after the last.
    void SetUp() override
    {
        if (!env)
            env = std::make_unique<SuiteEnvironment>();
    }
    static void TearDownTestSuite() { env.reset(); }

    // Starts an entity trusting the roots of `rootsDir` ("roots" or
    // "wrong-roots" of the PKI) and connects a client to it.
    void Start(const std::string& rootsDir)
    {
        entity = std::make_unique<EntityProcess>(
            std::vector<std::string>{"--roots", env->pki.File(rootsDir).string(), "--allow-trust-changes"},
            env->dir.Path() / "entity.log");
        client = std::make_unique<RawClient>(entity->WaitServing());
    }

    // Stops the entity with SIGTERM; it must end cleanly.
    void TearDown() override
    {
        if (entity) {
            EXPECT_EQ(entity->Stop(), 0) << entity->Log();
        }
    }

    ByteVector Flipped(ByteVector bytes, std::size_t at) const
    {
        bytes.at(at) ^= 0x01;
        return bytes;
    }

    inline static std::unique_ptr<SuiteEnvironment> env;
    std::unique_ptr<EntityProcess> entity;
    std::unique_ptr<RawClient> client;
};

class EntityTest : public EntityTestBase {
protected:
    void SetUp() override
    {
        EntityTestBase::SetUp();
        Start("roots");
    }
};

TEST_F(EntityTest, CheckBuffer_SignedPackageFiles)
{
    const ByteVector archive(300 * 1024, 0x5A);
    ASSERT_EQ(client->Riid(), 0u);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, env->goodSignature)), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(CheckBufferRequest(archive, env->pki.SignPackage(archive))), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(CheckBufferRequest(Flipped(env->data, 2), env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, Flipped(env->goodSignature, env->goodSignature.size() - 1))),
              NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, env->pki.SignPackage(env->data, "wrong-signer"))),
              NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, ToBytes("not a signature"))),
              NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE);
}

TEST_F(EntityTest, CheckHash_Hashes)
{
    const ByteVector hash = Streebog256(env->data);
    EXPECT_EQ(client->Code(CheckHashRequest(1, hash, env->goodSignature)), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(CheckHashRequest(1, Flipped(hash, 0), env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
    EXPECT_EQ(client->Code(CheckHashRequest(2, hash, env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM);
    EXPECT_EQ(client->Code(CheckHashRequest(1, ByteVector(hash.begin(), hash.end() - 1), env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE);
    EXPECT_EQ(client->Code(CheckHashRequest(1, ByteVector(64, 0), env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE);
}

TEST_F(EntityTest, Requests_Garbage_ErrorReplyThenServingGoesOn)
{
    std::vector<WireRequest> garbage;
    WireRequest r = CheckBufferRequest(env->data, env->goodSignature);
    r.message.base.mid = 9;
    garbage.push_back(r);
    r = CheckBufferRequest(env->data, env->goodSignature);
    nk_msg_set_size(&r.message.base, sizeof(nk_message)); // the header alone
    garbage.push_back(r);
    r = CheckBufferRequest(env->data, env->goodSignature);
    r.message.check_buffer.signature.offset = 0xFFFFFFF0u;
    garbage.push_back(r);
    r = CheckBufferRequest(env->data, env->goodSignature);
    r.arena.current = r.arena.start + env->data.size(); // the signature is not sent
    garbage.push_back(r);
    r = CheckHashRequest(1, Streebog256(env->data), env->goodSignature);
    r.message.check_hash.reserved0[0] = 0xFF;
    garbage.push_back(r);
    garbage.push_back(OneBlobRequest(nv_SignatureVerifier_RevokeRootCertificate_mid, ByteVector(7, 1)));

    for (std::size_t i = 0; i < garbage.size(); ++i) {
        EXPECT_EQ(client->Code(garbage[i]), NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST) << "request " << i;
    }
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_AddRootCertificate_mid, ToBytes("garbage DER"))),
              NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE);
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, ToBytes("garbage DER"))),
              NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL);

    const RawClient::Answer answer = client->Call(CheckBufferRequest(env->data, env->goodSignature));
    ASSERT_EQ(answer.rc, NK_EOK);
    EXPECT_EQ(answer.reply.base.size, NV_SIGNATURE_VERIFIER_REPLY_SIZE) << "a plain 32-byte reply";
    EXPECT_EQ(answer.reply.completion_code, 0u);
}

TEST_F(EntityTest, CheckBuffer_LargestData_Accepted)
{
    ByteVector data(NV_SIGNATURE_VERIFIER_MAX_DATA_SIZE);
    for (std::size_t i = 0; i < data.size(); i += 4096)
        data[i] = static_cast<std::uint8_t>(i >> 12);
    const ByteVector signature = env->pki.SignPackage(data);
    EXPECT_EQ(client->Code(CheckBufferRequest(data, signature)), NV_SIGNATURE_VERIFIER_CC_OK);
    data.back() ^= 0x01;
    EXPECT_EQ(client->Code(CheckBufferRequest(data, signature)), NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE);
}

// Tests that change the trust store: each has an entity of its own.
class EntityTrustStoreTest : public EntityTestBase {};

TEST_F(EntityTrustStoreTest, AddRootCertificate_TrustsTheRoot)
{
    Start("wrong-roots");
    const auto check = CheckBufferRequest(env->data, env->goodSignature);
    EXPECT_EQ(client->Code(check), NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_AddRootCertificate_mid, env->pki.Der("root-ca"))),
              NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(check), NV_SIGNATURE_VERIFIER_CC_OK);
}

TEST_F(EntityTrustStoreTest, RevokeRootCertificate_RevokesItsChains)
{
    Start("roots");
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_RevokeRootCertificate_mid,
                                          Sha256(env->pki.Der("root-ca")))),
              NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, env->goodSignature)), NV_SIGNATURE_VERIFIER_CC_REVOKED);
    EXPECT_EQ(client->Code(CheckHashRequest(1, Streebog256(env->data), env->goodSignature)),
              NV_SIGNATURE_VERIFIER_CC_REVOKED);
}

TEST_F(EntityTrustStoreTest, SetCRLBlob_RevokesListedCertificateUntilCleared)
{
    Start("roots");
    const auto revoked = CheckBufferRequest(env->data, env->pki.SignPackage(env->data, "revoked-signer"));
    EXPECT_EQ(client->Code(revoked), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, ReadBytes(env->pki.File("crl.der")))),
              NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(revoked), NV_SIGNATURE_VERIFIER_CC_REVOKED);
    EXPECT_EQ(client->Code(CheckBufferRequest(env->data, env->goodSignature)), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, {})), NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(client->Code(revoked), NV_SIGNATURE_VERIFIER_CC_OK);
}

struct CommandLineCase {
    const char* name;
    std::vector<std::string> args;
    int status;
    std::string output; // a piece of what it must print
};

TEST_F(EntityTrustStoreTest, Main_CommandLine)
{
    const std::string missing = (env->dir.Path() / "missing").string();
    const auto notes = env->dir.Path() / "notes";
    std::filesystem::create_directories(notes);
    WriteBytes(notes / "README", ToBytes("no certificate here"));
    const CommandLineCase cases[] = {
        {"help", {"--help"}, 0, "Usage: signature-verifier [--roots DIR]..."},
        {"unknown option", {"--bogus"}, 2, "signature-verifier: unknown argument '--bogus' (see --help)"},
        {"roots without a value", {"--roots"}, 2, "signature-verifier: --roots needs a value (see --help)"},
        {"bad log level", {"--log-level", "loud"}, 2, "unknown log level 'loud'"},
        {"missing roots", {"--roots", missing}, 4, "cannot read the roots directory '" + missing + "'"},
        {"no certificate in roots", {"--roots", notes.string()}, 4,
         "'" + (notes / "README").string() + "' holds no PEM or DER certificate"},
        {"engine missing", {"--engine", missing}, 3, "cannot load the GOST engine: no usable engine in " + missing},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv{EntityBinary().string()};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::string output;
        EXPECT_EQ(RunToEnd(argv, output), c.status) << c.name << ":\n" << output;
        EXPECT_NE(output.find(c.output), std::string::npos) << c.name << ":\n" << output;
    }
}

}  // namespace
}  // namespace signature_verifier::host::testing
