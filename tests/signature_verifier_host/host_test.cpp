// The host signature verifier: its signature checks and trust store, the
// refusals of its request handler, and the program itself spoken to by the
// client library. The fixtures are those of make-fixtures.
#include <gtest/gtest.h>
#include <signature_verifier/signature_verifier.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include "gost_engine.h"
#include "request_handler.h"
#include "signature_checker.h"
#include "support/process.h"
#include "support/runtime_dir.h"

namespace signature_verifier::host {
namespace {

using ByteVector = std::vector<std::uint8_t>;

const std::string kFixtures = FIXTURES;

ByteVector Read(const std::string& name)
{
    static const GostEngine engine;  // for the checks that follow
    std::ifstream in(kFixtures + "/" + name, std::ios::binary);
    EXPECT_TRUE(in) << name;
    return ByteVector(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `bytes` with the one at `at` changed, or `more` appended.
ByteVector Changed(ByteVector bytes, std::size_t at, const ByteVector& more = {})
{
    bytes.insert(bytes.end(), more.begin(), more.end());
    if (more.empty())
        bytes.at(at) ^= 0x01;
    return bytes;
}

// Each check on a checker that trusts the roots in `roots` (none when null)
// after the changes the row makes to its store: the completion code, and
// the reason where the row gives one. A refused change changes nothing.
TEST(SignatureCheckerTest, Checks_Outcomes)
{
    const ByteVector data = Read("data"), good = Read("good.sig"), hash = Read("data.hash"), crl = Read("pki/crl.der");
    const ByteVector root = Read("pki/root-ca.der"), revoked = Read("revoked.sig"), junk = {'j', 'u', 'n', 'k'};
    using Step = std::function<Outcome(SignatureChecker&)>;
    const auto buffer = [](ByteVector d, ByteVector s) -> Step { return [=](auto& c) { return c.CheckBuffer(d, s); }; };
    const auto byHash = [](std::uint8_t a, ByteVector h, ByteVector s) -> Step {
        return [=](auto& c) { return c.CheckHash(a, h, s); };
    };
    const auto add = [](ByteVector der) -> Step { return [=](auto& c) { return c.AddRootCertificate(der); }; };
    const auto revoke = [](ByteVector id) -> Step { return [=](auto& c) { return c.RevokeRootCertificate(id); }; };
    const auto setCrl = [](ByteVector der) -> Step { return [=](auto& c) { return c.SetCrl(der); }; };
    const Step check = buffer(data, good);
    const char *const roots = "pki/roots", *const none = nullptr;
    enum : std::uint32_t {
        kOk, kInvalid, kUntrusted, kRevoked, kMalformed, kAlgorithm, kHashSize, kRequest, kRoot, kCrl,
        kInternal, kNotForCodeSigning, kUnusableCrl
    };
    static_assert(kCrl == NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL && kRevoked == NV_SIGNATURE_VERIFIER_CC_REVOKED &&
                  kUnusableCrl == NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL);
    const auto signedBy = [&](const char* signer) { return buffer(data, Read(signer + std::string(".sig"))); };
    const std::string pki = "/O=Verifier Test PKI/CN=";
    const struct {
        const char* name;
        const char* roots;
        std::vector<Step> steps;  // the outcome is the last one's
        std::uint32_t code;
        std::string detail;
    } rows[] = {
        {"good", roots, {check}, kOk, ""},
        {"good, by hash", roots, {byHash(1, hash, good)}, kOk, ""},
        {"empty data", roots, {buffer({}, Read("empty-data.sig"))}, kOk, ""},
        {"a data byte flipped", roots, {buffer(Changed(data, 3), good)}, kInvalid,
         "the message digest does not match the data"},
        {"a signature byte flipped", roots, {buffer(data, Changed(good, good.size() - 1))}, kInvalid, ""},
        {"a hash byte flipped", roots, {byHash(1, Changed(hash, 31), good)}, kInvalid, ""},
        {"signer under another root", roots, {buffer(data, Read("wrong-root.sig"))}, kUntrusted, ""},
        {"only the other root trusted", "pki/wrong-roots", {check}, kUntrusted,
         "unable to get local issuer certificate at /O=Verifier Test PKI/CN=Test Intermediate CA"},
        {"intermediate not embedded", roots, {buffer(data, Read("no-intermediate.sig"))}, kUntrusted, ""},
        {"the root added, twice", none, {add(root), add(root), check}, kOk, ""},
        {"refused roots trust nothing", none, {add(junk), add(Read("pki/root-ca.pem")), add(crl), check}, kUntrusted,
         ""},
        {"revoked signer, no CRL", roots, {buffer(data, revoked)}, kOk, ""},
        {"revoked signer in the CRL", roots, {setCrl(crl), buffer(data, revoked)}, kRevoked,
         "certificate revoked at /O=Verifier Test PKI/CN=Test Revoked Signer"},
        {"CRL kept after a refused one", roots, {setCrl(crl), setCrl(junk), buffer(data, revoked)}, kRevoked, ""},
        {"CRL removed", roots, {setCrl(crl), setCrl({}), buffer(data, revoked)}, kOk, ""},
        {"forged CRL", roots, {setCrl(Changed(crl, crl.size() - 1)), check}, kUntrusted,
         "CRL signature failure at /O=Verifier Test PKI/CN=Test Package Signer"},
        {"another root revoked", roots, {revoke(ByteVector(32, 7)), check}, kOk, ""},
        {"root revoked", roots, {revoke(Read("root-ca.id")), check}, kRevoked,
         "the chain holds the revoked /O=Verifier Test PKI/CN=Test Root CA"},
        {"root revoked and added again", roots, {revoke(Read("root-ca.id")), add(root), check}, kRevoked, ""},
        {"intermediate revoked", roots, {revoke(Read("intermediate-ca.id")), check}, kRevoked, ""},
        {"no signed attributes", roots, {buffer(data, Read("no-attributes.sig"))}, kMalformed, ""},
        {"content embedded", roots, {buffer(data, Read("embedded.sig"))}, kMalformed, ""},
        {"a byte after the DER", roots, {buffer(data, Changed(good, 0, {0}))}, kMalformed, ""},
        {"empty", roots, {buffer(data, {})}, kMalformed, ""},
        {"ECDSA with SHA-256", roots, {buffer(data, Read("ecdsa.sig"))}, kAlgorithm, ""},
        {"hash algorithm 2", roots, {byHash(2, hash, good)}, kAlgorithm, "hash algorithm 2 is not supported"},
        {"31-byte hash", roots, {byHash(1, ByteVector(hash.begin(), hash.end() - 1), good)}, kHashSize,
         "a Streebog-256 hash has 32 bytes, not 31"},
        {"root: junk", roots, {add(junk)}, kRoot, "not one DER certificate"},
        {"CRL: junk", roots, {setCrl(junk)}, kCrl, "not one DER CRL"},
        {"identifier of 33 bytes", roots, {revoke(ByteVector(33))}, kRequest, "an identifier has 32 bytes, not 33"},
        {"a refused identifier revokes nothing", roots, {revoke(ByteVector(31)), check}, kOk, ""},
        // The signer's certificate: its purpose, key usage, validity and issuer.
        {"codeSigning signer", roots, {signedBy("code-signer")}, kOk, ""},
        {"serverAuth-only signer", roots, {signedBy("tls-signer")}, kNotForCodeSigning,
         "the signer's certificate is not for code signing: its extended key usage does not list it"},
        {"no digitalSignature", roots, {signedBy("no-ds-signer")}, kUntrusted,
         "the signer's certificate is not for signatures"},
        {"expired signer", roots, {signedBy("expired-signer")}, kUntrusted,
         "certificate has expired at " + pki + "Test Expired Signer"},
        {"issued by a non-CA", roots, {signedBy("non-ca-signer")}, kUntrusted,
         "invalid CA certificate at " + pki + "Test Package Signer"},
        // CRLs that do not cover the signer's issuer, or cannot be applied.
        {"the root's CRL", roots, {setCrl(Read("pki/root-crl.der")), check}, kOk, ""},
        {"expired CRL", roots, {setCrl(Read("pki/expired-crl.der")), check}, kUntrusted,
         "CRL has expired at " + pki + "Test Package Signer"},
        {"CRL signed by another key", roots, {setCrl(Read("pki/stranger-crl.der")), check}, kUntrusted,
         "unable to get certificate CRL at " + pki + "Test Package Signer"},
        {"CRL for some reasons", roots, {setCrl(Read("pki/reasons-crl.der"))}, kUnusableCrl,
         "the CRL cannot be applied: its issuing distribution point covers only some reasons"},
        {"indirect CRL", roots, {setCrl(Read("pki/indirect-crl.der"))}, kUnusableCrl,
         "the CRL cannot be applied: it is an indirect CRL"},
        {"CRL kept after an unusable one", roots,
         {setCrl(crl), setCrl(Read("pki/indirect-crl.der")), buffer(data, revoked)}, kRevoked, ""},
        // A root is trusted only in DER, so that its identifier is the hash
        // of the bytes a client sent.
        {"root in BER", none, {add(Read("pki/root-ca-ber.der"))}, kRoot, "a certificate in BER, not DER"},
        {"root with a BER inner part", none, {add(Read("pki/root-ca-ber-tbs.der")), check}, kUntrusted, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SignatureChecker checker;
        ASSERT_EQ(row.roots != nullptr ? checker.LoadRoots(kFixtures + "/" + row.roots) : 1u, 1u);
        Outcome outcome;
        for (const Step& step : row.steps)
            outcome = step(checker);
        EXPECT_EQ(outcome.code, row.code) << outcome.detail;
        EXPECT_EQ(outcome.detail.empty(), outcome.Ok());
        EXPECT_EQ(row.detail.empty() ? "" : outcome.detail, row.detail);
    }
}

// A request as a client lays it out: the items one behind the other in the
// arena, their descriptors from byte 24 (28 for CheckHash, with algorithm 1).
struct Request {
    nv_SignatureVerifier_req message{};
    ByteVector bytes;

    Request(std::uint16_t mid, std::uint32_t size, const std::vector<ByteVector>& items)
    {
        message.base.mid = mid;
        nk_msg_set_size(&message.base, size);
        message.check_hash.algorithm = mid == nv_SignatureVerifier_CheckHash_mid ? 1 : 0;
        auto* field = reinterpret_cast<std::uint8_t*>(&message) + (message.check_hash.algorithm != 0 ? 28 : 24);
        for (const ByteVector& item : items) {
            const nk_arena_desc desc{static_cast<std::uint32_t>(bytes.size()), static_cast<std::uint32_t>(item.size())};
            field = static_cast<std::uint8_t*>(std::memcpy(field, &desc, sizeof desc)) + sizeof desc;
            bytes.insert(bytes.end(), item.begin(), item.end());
        }
    }
    // The request with `words` written from byte `at`.
    Request With(std::size_t at, const std::vector<std::uint32_t>& words) const
    {
        Request changed = *this;
        std::memcpy(reinterpret_cast<std::uint8_t*>(&changed.message) + at, words.data(), words.size() * 4);
        return changed;
    }
};

// The requests the handler refuses as malformed, each with the line it logs,
// after one that it passes. The reply is always whole: 32 bytes with the
// request's riid and mid, and the error bit and the code on a refusal.
TEST(RequestHandlerTest, Handle_Refusals)
{
    const ByteVector data = Read("data"), good = Read("good.sig"), hash = Read("data.hash");
    SignatureChecker checker;
    ASSERT_EQ(checker.LoadRoots(kFixtures + "/pki/roots"), 1u);
    std::ostringstream log;
    const auto sink = std::make_shared<spdlog::sinks::ostream_sink_st>(log);
    sink->set_pattern("%l %v");
    RequestHandler handler(checker, 0, std::make_shared<spdlog::logger>("test", sink));
    const Request buffer(0, 40, {data, good}), byHash(1, 48, {hash, good});
    const auto used = static_cast<std::uint32_t>(data.size() + good.size());
    const std::string cb = "warning CheckBuffer (mid 0): refused with code 7: ",
                      ch = "warning CheckHash (mid 1): refused with code 7: ",
                      outside = ") lies outside the " + std::to_string(used) + " bytes of the arena";
    const std::pair<Request, std::string> rows[] = {
        {buffer, "info CheckBuffer: passed"},
        {buffer.With(0, {1}), cb + "interface 1 is not served here"},
        {buffer.With(0, {5 << 16}), "warning unknown method (mid 5): refused with code 7: method 5 does not exist"},
        {buffer.With(4, {39}), cb + "a request of 39 bytes, expected 40"},
        {byHash.With(4, {40}), ch + "a request of 40 bytes, expected 48"},
        {Request(4, 0, {}), "warning SetCRLBlob (mid 4): refused with code 7: a request of 0 bytes, expected 32"},
        {buffer.With(24, {used, 1}), cb + "data (" + std::to_string(used) + ", 1" + outside},
        {buffer.With(24, {0xFFFFFFFF, 2}), cb + "data (4294967295, 2" + outside},
        {buffer.With(36, {used}),
         cb + "signature (" + std::to_string(data.size()) + ", " + std::to_string(used) + outside},
        {buffer.With(24, {0, 0x4000001}), cb + "data of 67108865 bytes exceeds 67108864"},
        {buffer.With(32, {0, 0x4000001}), cb + "signature of 67108865 bytes exceeds 67108864"},
        {Request(1, 48, {ByteVector(513), good}), ch + "hash of 513 bytes exceeds 512"},
        {byHash.With(24, {1 | 1 << 16}), ch + "reserved bytes of CheckHash are not zero"},
        {byHash.With(44, {1 << 24}), ch + "reserved bytes of CheckHash are not zero"},
    };
    for (const auto& [request, line] : rows) {
        SCOPED_TRACE(line);
        log.str("");
        ByteVector bytes = request.bytes;
        const nk_arena arena{bytes.data(), bytes.data() + bytes.size(), bytes.data() + bytes.size()};
        nv_SignatureVerifier_res reply, expected{};
        std::memset(&reply, 0xAA, sizeof reply);
        expected.completion_code = line.rfind("info", 0) == 0 ? 0 : 7;
        EXPECT_EQ(handler.Handle(request.message, arena, reply), expected.completion_code);
        EXPECT_EQ(log.str(), line + "\n");
        std::memcpy(&expected, &request.message, 4);
        expected.base.size = 32 | (expected.completion_code != 0 ? NK_MSG_ERROR_FLAG : 0);
        EXPECT_EQ(std::memcmp(&reply, &expected, sizeof reply), 0);
    }
}

// The program on a runtime directory of its own, trusting the test root,
// spoken to by the client library. With --allow-trust-changes: checks that
// pass, one that fails on a flipped byte, a root revoked on the way. Without
// it, each change to the trust store is refused with code 13 and a line of
// its own, and the store stays as it was. Both stop with status 0.
TEST(SignatureVerifierProgramTest, ChecksAndTrustChangesOverTheWire)
{
    const ByteVector data = Read("data"), good = Read("good.sig"), hash = Read("data.hash"), id = Read("root-ca.id"),
                     root = Read("pki/root-ca.der"), crl = Read("pki/crl.der");
    const auto code = [](int c) { return -((c << 15) | 0x4000); };
    for (const bool allowed : {true, false}) {
        SCOPED_TRACE(allowed);
        const test_support::RuntimeDir runtime;
        std::vector<std::string> args{SIGNATURE_VERIFIER, "--roots", kFixtures + "/pki/roots"};
        if (allowed)
            args.push_back("--allow-trust-changes");
        test_support::Process program(args);
        ASSERT_TRUE(program.WaitServing(SIGNATURE_VERIFIER_SERVICE_NAME)) << program.Log();
        void* ctx = nullptr;
        ASSERT_EQ(signature_verifier_init(SIGNATURE_VERIFIER_SERVICE_NAME, &ctx), 0);
        const auto checkBuffer = [&](const ByteVector& d) {
            return signature_verifier_check_buffer(ctx, d.data(), d.size(), good.data(), good.size());
        };
        const int refused = allowed ? 0 : code(13);
        EXPECT_EQ(signature_verifier_check_hash_value(ctx, 1, hash.data(), hash.size(), good.data(), good.size()), 0);
        EXPECT_EQ(checkBuffer(Changed(data, 0)), code(1));
        EXPECT_EQ(signature_verifier_add_root_certificate(ctx, root.data(), root.size()), refused);
        EXPECT_EQ(signature_verifier_set_crl_blob(ctx, crl.data(), crl.size()), refused);
        EXPECT_EQ(checkBuffer(data), 0);
        EXPECT_EQ(signature_verifier_revoke_root_certificate(ctx, id.data(), id.size()), refused);
        EXPECT_EQ(checkBuffer(data), allowed ? code(3) : 0);
        signature_verifier_destroy(ctx);
        EXPECT_EQ(program.Stop(), 0) << program.Log();
        for (const char* method : {"AddRootCertificate (mid 2)", "SetCRLBlob (mid 4)", "RevokeRootCertificate (mid 3)"})
            EXPECT_EQ(program.Log().find(std::string("] ") + method +
                                         ": refused with code 13: trust store changes are not allowed (the entity "
                                         "was started without --allow-trust-changes)\n") != std::string::npos,
                      !allowed)
                << method;
    }
}

}  // namespace
}  // namespace signature_verifier::host
