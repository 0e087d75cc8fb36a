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
#include <vector>

#include <gtest/gtest.h>
#include <nos/platform.h>
#include <nos_host/host.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "support.h"
#include "wire_requests.h"

// The test executable is linked with --wrap=NkNosTransport_Init, so that a
// transport that cannot be bound can be played.
namespace {
bool g_failTransportInit = false;
}  // namespace

extern "C" Retcode __real_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags);

extern "C" Retcode __wrap_NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags)
{
    return g_failTransportInit ? NK_EBADF : __real_NkNosTransport_Init(t, handle, options, flags);
}

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

ByteVector Bytes(const void* data, std::size_t size)
{
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    return ByteVector(bytes, bytes + size);
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

    std::unique_ptr<FakeEntity> entity;
    void* ctx = nullptr;
    const ByteVector data = host::testing::ToBytes("package bytes");
    const ByteVector signature = host::testing::ToBytes("signature!");
};

// Each request as it reaches the entity, compared byte for byte with the
// request the entity's own tests build from the wire definitions.
TEST_F(ClientWireTest, Requests_LayoutOnTheWire)
{
    using namespace host::testing;
    const ByteVector hash(512, 0x5C);
    const ByteVector blob = ToBytes("DER bytes");
    struct Case {
        const char* name;
        std::function<int()> call;
        WireRequest expected;
    };
    const std::vector<Case> cases = {
        {"check_buffer",
         [&] { return signature_verifier_check_buffer(ctx, data.data(), data.size(), signature.data(), signature.size()); },
         CheckBufferRequest(data, signature)},
        {"check_buffer without data",
         [&] { return signature_verifier_check_buffer(ctx, nullptr, 0, signature.data(), signature.size()); },
         CheckBufferRequest({}, signature)},
        {"check_hash_value, largest hash, algorithm as given",
         [&] {
             return signature_verifier_check_hash_value(ctx, 7, hash.data(), hash.size(), signature.data(),
                                                        signature.size());
         },
         CheckHashRequest(7, hash, signature)},
        {"add_root_certificate", [&] { return signature_verifier_add_root_certificate(ctx, blob.data(), blob.size()); },
         OneBlobRequest(nv_SignatureVerifier_AddRootCertificate_mid, blob)},
        {"revoke_root_certificate",
         [&] { return signature_verifier_revoke_root_certificate(ctx, blob.data(), blob.size()); },
         OneBlobRequest(nv_SignatureVerifier_RevokeRootCertificate_mid, blob)},
        {"set_crl_blob", [&] { return signature_verifier_set_crl_blob(ctx, blob.data(), blob.size()); },
         OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, blob)},
        {"set_crl_blob without a list", [&] { return signature_verifier_set_crl_blob(ctx, nullptr, 0); },
         OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, {})},
    };
    for (const Case& c : cases)
        ASSERT_EQ(c.call(), 0) << c.name;
    const auto requests = entity->Requests();
    ASSERT_EQ(requests.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        nv_SignatureVerifier_req expected = cases[i].expected.message;
        expected.base.riid = 1;
        EXPECT_EQ(Bytes(&requests[i].message, sizeof expected), Bytes(&expected, sizeof expected)) << cases[i].name;
        const nk_arena& arena = cases[i].expected.arena;
        EXPECT_EQ(requests[i].arena, Bytes(arena.start, nk_arena_used(&arena))) << cases[i].name;
    }
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

// The test holds the shared channel itself, so that what init leaves on it
// shows: after a failed init only the test's own reference is left.
TEST_F(ClientInitTest, Init_ConnectedButUnusable_13AndChannelGivenBack)
{
    FakeEntity noEndpoint("sv.no-endpoint", {"other.endpoint"});
    FakeEntity entity("sv.entity", {NV_SIGNATURE_VERIFIER_ENDPOINT});
    struct Case {
        const char* channel;
        bool failTransport;
        std::string log;
    };
    const Case cases[] = {
        {"sv.no-endpoint", false, "service_connect: ServiceLocatorGetRiid invalid riid\n"},
        {"sv.entity", true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.channel);
        const Handle held = ServiceLocatorConnect(c.channel);
        ASSERT_NE(held, INVALID_HANDLE);
        void* ctx = nullptr;
        g_failTransportInit = c.failTransport;
        const Logged result = RunLogged([&] { return signature_verifier_init(c.channel, &ctx); });
        g_failTransportInit = false;
        EXPECT_EQ(result.status, 13);
        EXPECT_EQ(result.log, c.log + "signature_verifier_init: failed to connect to the server\n");
        EXPECT_EQ(ctx, nullptr);
        EXPECT_EQ(KnHandleClose(held), NK_EOK);
        EXPECT_EQ(KnHandleClose(held), NK_EBADF) << "init kept a reference on the channel";
    }
}

}  // namespace
}  // namespace signature_verifier::client::testing
