// The client library against a scripted stand-in of the entity, served by a
// thread of this process over the host platform: what goes on the wire, and
// how replies and transport failures come back.

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nos/platform.h>
#include <nos_host/host.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "support.h"

namespace signature_verifier::client::testing {
namespace {

// Serves a channel on a thread of its own and answers every request as told.
class FakeEntity {
public:
    enum class Answer { Plain, Error, LeaveUnanswered };

    struct Received {
        nv_SignatureVerifier_req message{};
        ByteVector arena;
    };

    FakeEntity(const char* channel, const std::vector<const char*>& endpoints)
    {
        EXPECT_EQ(NosHostSetEndpoints(channel, endpoints.data(), endpoints.size()), NK_EOK);
        m_channel = ServiceLocatorRegister(channel, nullptr, 0, nullptr);
        EXPECT_NE(m_channel, INVALID_HANDLE);
        EXPECT_EQ(NkNosTransportSync_Init(&m_transport, m_channel, INVALID_HANDLE, INVALID_HANDLE), NK_EOK);
        m_thread = std::thread([this] { Serve(); });
    }

    ~FakeEntity()
    {
        ServiceLocatorUnregister(m_channel);
        m_thread.join();
    }

    void Set(Answer answer, std::uint32_t code = 0)
    {
        std::lock_guard lock(m_mutex);
        m_answer = answer;
        m_code = code;
    }

    std::vector<Received> Requests()
    {
        std::lock_guard lock(m_mutex);
        return m_received;
    }

private:
    void Serve()
    {
        ByteVector arenaBuffer(1 << 20);
        for (;;) {
            Received request;
            nk_msg_set_size(&request.message.base, sizeof request.message);
            nk_arena arena{};
            nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
            // Receiving again without a reply drops the client left waiting.
            if (m_transport.ops->recv(&m_transport, &request.message.base, &arena) != NK_EOK)
                return; // the channel is closed
            request.arena.assign(arena.start, arena.current);
            nv_SignatureVerifier_res reply{};
            reply.base.riid = request.message.base.riid;
            reply.base.mid = request.message.base.mid;
            nk_msg_set_size(&reply.base, sizeof reply);
            {
                std::lock_guard lock(m_mutex);
                m_received.push_back(request);
                if (m_answer == Answer::LeaveUnanswered)
                    continue;
                if (m_answer == Answer::Error) {
                    reply.base.size |= NK_MSG_ERROR_FLAG;
                    reply.completion_code = m_code;
                }
            }
            m_transport.ops->reply(&m_transport, &reply.base, nullptr);
        }
    }

    Handle m_channel = INVALID_HANDLE;
    NkNosTransport m_transport{};
    std::mutex m_mutex;
    Answer m_answer = Answer::Plain;
    std::uint32_t m_code = 0;
    std::vector<Received> m_received;
    std::thread m_thread;
};

// The lines of `log` without those of the platform itself.
std::string WithoutPlatformLines(const std::string& log)
{
    std::istringstream in(log);
    std::string kept;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("[nos-host]", 0) != 0)
            kept += line + "\n";
    }
    return kept;
}

// A descriptor as (offset, length), which gtest compares and prints.
using DescPair = std::pair<std::uint32_t, std::uint32_t>;

DescPair Pair(const nk_arena_desc& d)
{
    return {d.offset, d.size};
}

ByteVector Concat(const ByteVector& a, const ByteVector& b)
{
    ByteVector both = a;
    both.insert(both.end(), b.begin(), b.end());
    return both;
}

class ClientWireTest : public ClientTest {
protected:
    void SetUp() override
    {
        ClientTest::SetUp();
        // The interface's endpoint second, so that its riid is 1.
        entity = std::make_unique<FakeEntity>(SIGNATURE_VERIFIER_SERVICE_NAME,
                                              std::vector<const char*>{"other.endpoint", "storage.storage"});
        ASSERT_EQ(signature_verifier_init(SIGNATURE_VERIFIER_SERVICE_NAME, &ctx), 0);
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override
    {
        signature_verifier_destroy(ctx);
        entity.reset();
        ClientTest::TearDown();
    }

    FakeEntity::Received OnlyRequest()
    {
        const auto requests = entity->Requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? FakeEntity::Received{} : requests.back();
    }

    std::unique_ptr<FakeEntity> entity;
    void* ctx = nullptr;
    const ByteVector data = host::testing::ToBytes("package bytes");
    const ByteVector signature = host::testing::ToBytes("signature!");
};

void ExpectHeader(const nk_message& header, std::uint16_t mid, std::uint32_t size)
{
    EXPECT_EQ(header.riid, 1u);
    EXPECT_EQ(header.mid, mid);
    EXPECT_EQ(header.size, size) << "size word, flags clear";
    EXPECT_EQ(ByteVector(header.reserved, header.reserved + sizeof header.reserved), ByteVector(16, 0));
}

TEST_F(ClientWireTest, CheckBuffer_Layout)
{
    ASSERT_EQ(signature_verifier_check_buffer(ctx, data.data(), data.size(), signature.data(), signature.size()), 0);
    const auto sent = OnlyRequest();
    ExpectHeader(sent.message.base, 0, 40);
    EXPECT_EQ(Pair(sent.message.check_buffer.data), DescPair(0, 13));
    EXPECT_EQ(Pair(sent.message.check_buffer.signature), DescPair(13, 10));
    EXPECT_EQ(sent.arena, Concat(data, signature)) << "data, then the signature right behind it";
}

TEST_F(ClientWireTest, CheckBuffer_NoData_EmptyDescriptor)
{
    ASSERT_EQ(signature_verifier_check_buffer(ctx, nullptr, 0, signature.data(), signature.size()), 0);
    const auto sent = OnlyRequest();
    EXPECT_EQ(Pair(sent.message.check_buffer.data), DescPair(0, 0));
    EXPECT_EQ(Pair(sent.message.check_buffer.signature), DescPair(0, 10));
    EXPECT_EQ(sent.arena, signature);
}

TEST_F(ClientWireTest, CheckHashValue_LayoutAndLargestHash)
{
    const ByteVector hash(512, 0x5C);
    ASSERT_EQ(signature_verifier_check_hash_value(ctx, 7, hash.data(), hash.size(), signature.data(), signature.size()),
              0)
        << "a 512-byte hash is sent, and the algorithm as given";
    const auto sent = OnlyRequest();
    ExpectHeader(sent.message.base, 1, 48);
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&sent.message);
    EXPECT_EQ(ByteVector(raw + 24, raw + 28), (ByteVector{7, 0, 0, 0}));
    EXPECT_EQ(Pair(sent.message.check_hash.hash), DescPair(0, 512));
    EXPECT_EQ(Pair(sent.message.check_hash.signature), DescPair(512, 10));
    EXPECT_EQ(ByteVector(raw + 44, raw + 48), ByteVector(4, 0));
    EXPECT_EQ(sent.arena, Concat(hash, signature));
}

TEST_F(ClientWireTest, OneBlobRequests_Layout)
{
    const ByteVector blob = host::testing::ToBytes("DER bytes");
    struct Case {
        std::uint16_t mid;
        std::function<int()> call;
        ByteVector arena;
    };
    const std::vector<Case> cases = {
        {2, [&] { return signature_verifier_add_root_certificate(ctx, blob.data(), blob.size()); }, blob},
        {3, [&] { return signature_verifier_revoke_root_certificate(ctx, blob.data(), blob.size()); }, blob},
        {4, [&] { return signature_verifier_set_crl_blob(ctx, blob.data(), blob.size()); }, blob},
        {4, [&] { return signature_verifier_set_crl_blob(ctx, nullptr, 0); }, {}},
    };
    for (const Case& c : cases)
        ASSERT_EQ(c.call(), 0) << "method " << c.mid;
    const auto requests = entity->Requests();
    ASSERT_EQ(requests.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE("request " + std::to_string(i));
        ExpectHeader(requests[i].message.base, cases[i].mid, 32);
        EXPECT_EQ(Pair(requests[i].message.set_crl_blob.crl), DescPair(0, static_cast<std::uint32_t>(cases[i].arena.size())));
        EXPECT_EQ(requests[i].arena, cases[i].arena);
    }
}

TEST_F(ClientWireTest, Requests_ErrorReply_NegativeCodeAndMethodText)
{
    const std::uint8_t hash[32] = {};
    struct Case {
        std::function<int()> call;
        std::string log;
    };
    const std::vector<Case> cases = {
        {[&] { return signature_verifier_check_buffer(ctx, data.data(), data.size(), signature.data(), 3); },
         "signature_verifier_check_buffer: nv_SignatureVerifier_CheckBuffer, invalid completion code 1\n"},
        {[&] { return signature_verifier_check_hash_value(ctx, 1, hash, sizeof hash, signature.data(), 3); },
         "signature_verifier_check_hash_value: nv_SignatureVerifier_CheckHash, invalid completion code 1\n"},
        {[&] { return signature_verifier_add_root_certificate(ctx, data.data(), data.size()); },
         "signature_verifier_add_root_certificate: nv_SignatureVerifier_AddRootCertificate, invalid completion code "
         "1\n"},
        {[&] { return signature_verifier_revoke_root_certificate(ctx, hash, sizeof hash); },
         "signature_verifier_revoke_root_certificate: nv_SignatureVerifier_RevokeRootCertificate, invalid completion "
         "code 1\n"},
        {[&] { return signature_verifier_set_crl_blob(ctx, nullptr, 0); },
         "signature_verifier_set_crl_blob: nv_SignatureVerifier_SetCRLBlob, invalid completion code 1\n"},
    };
    entity->Set(FakeEntity::Answer::Error, 1);
    for (const Case& c : cases) {
        const Logged result = RunLogged(c.call);
        EXPECT_EQ(result.status, -49152) << c.log;
        EXPECT_EQ(result.log, c.log);
    }
}

TEST_F(ClientWireTest, CheckHash_HashContext_SendsItsDigestAndTurnsRefusalInto14)
{
    void* hash = nullptr;
    ASSERT_EQ(signature_verifier_hash_create(&hash), 0);
    ASSERT_EQ(signature_verifier_hash_buffer(hash, data.data(), data.size()), 0);
    entity->Set(FakeEntity::Answer::Error, 1);
    const Logged refused =
        RunLogged([&] { return signature_verifier_check_hash(ctx, hash, signature.data(), signature.size()); });
    EXPECT_EQ(refused.status, 14);
    EXPECT_EQ(refused.log,
              "signature_verifier_check_hash_value: nv_SignatureVerifier_CheckHash, invalid completion code 1\n"
              "signature_verifier_check_hash: can't check hash value: -49152\n");
    const auto sent = OnlyRequest();
    EXPECT_EQ(sent.message.check_hash.algorithm, 1u);
    EXPECT_EQ(Pair(sent.message.check_hash.hash), DescPair(0, 32));
    EXPECT_EQ(sent.arena, Concat(host::testing::Streebog256(data), signature));
    EXPECT_EQ(signature_verifier_hash_close(hash), 0);
}

TEST_F(ClientWireTest, CheckBuffer_LeftUnanswered_TransportCodeThenBroken)
{
    // A server that receives again without replying drops the waiting client.
    entity->Set(FakeEntity::Answer::LeaveUnanswered);
    const Logged result =
        RunLogged([&] { return signature_verifier_check_buffer(ctx, nullptr, 0, signature.data(), signature.size()); });
    EXPECT_EQ(result.status, NK_EPIPE);
    EXPECT_EQ(WithoutPlatformLines(result.log),
              "signature_verifier_check_buffer: nv_SignatureVerifier_CheckBuffer, invalid result -32\n");

    entity->Set(FakeEntity::Answer::Plain);
    const Logged again = RunLogged([&] { return signature_verifier_set_crl_blob(ctx, nullptr, 0); });
    EXPECT_EQ(again.status, NK_EPIPE) << "the connection stays broken";
    EXPECT_EQ(WithoutPlatformLines(again.log),
              "signature_verifier_set_crl_blob: nv_SignatureVerifier_SetCRLBlob, invalid result -32\n");
    EXPECT_EQ(entity->Requests().size(), 1u);
}

class ClientInitTest : public ClientTest {};

TEST_F(ClientInitTest, Init_ChannelWithoutTheEndpoint_13)
{
    FakeEntity entity("sv.no-endpoint", {"other.endpoint"});
    void* ctx = nullptr;
    const Logged result = RunLogged([&] { return signature_verifier_init("sv.no-endpoint", &ctx); });
    EXPECT_EQ(result.status, 13);
    EXPECT_EQ(result.log,
              "service_connect: ServiceLocatorGetRiid invalid riid\n"
              "signature_verifier_init: failed to connect to the server\n");
    EXPECT_EQ(ctx, nullptr);
}

}  // namespace
}  // namespace signature_verifier::client::testing
