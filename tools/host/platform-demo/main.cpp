// Host platform demonstration, one program in two roles:
//   platform-demo server          registers the channel "platform-demo" with the
//                                 endpoint "Demo.Echo", answers one call, exits
//   platform-demo client <text>   calls it with <text> and prints the answer
// The server answers with the text in capitals.
#include <nos/platform.h>
#include <nos_host/host.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* kChannel = "platform-demo";
constexpr const char* kEndpoint = "Demo.Echo";
constexpr size_t kArenaSize = 4096;

// Request and reply: the header, then where the text lies in the arena.
struct Message {
    nk_message header;
    nk_arena_desc text;
};

int Server()
{
    const char* endpoints[] = {kEndpoint};
    if (NosHostSetEndpoints(kChannel, endpoints, 1) != NK_EOK)
        return 1;
    const Handle channel = ServiceLocatorRegister(kChannel, nullptr, 0, nullptr);
    Handle sync = INVALID_HANDLE;
    NkNosTransport t;
    if (channel == INVALID_HANDLE || KnIpcCreateSyncObject(&sync) != NK_EOK ||
        NkNosTransportSync_Init(&t, channel, INVALID_HANDLE, sync) != NK_EOK) {
        NosLogf(NOS_LOG_ERROR, __FILE__, __LINE__, "demo-server", "cannot register channel \"%s\"", kChannel);
        return 1;
    }
    std::printf("server: serving channel \"%s\", endpoint \"%s\"\n", kChannel, kEndpoint);
    std::fflush(stdout);

    std::vector<uint8_t> requestArenaBytes(kArenaSize);
    Message request{};
    nk_arena requestArena;
    Retcode rc;
    do {
        nk_msg_set_size(&request.header, sizeof request);
        nk_arena_init(&requestArena, requestArenaBytes.data(), requestArenaBytes.size());
        rc = t.ops->recv(&t, &request.header, &requestArena);
    } while (rc == NK_EAGAIN);
    if (rc != NK_EOK)
        return 1;
    const auto* text = static_cast<const char*>(nk_arena_get(&requestArena, request.text));
    std::string answer = text != nullptr ? std::string(text, request.text.size) : std::string();
    std::printf("server: request on riid %u, method %u: \"%s\"\n", request.header.riid, request.header.mid,
                answer.c_str());
    for (char& c : answer)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));

    std::vector<uint8_t> replyArenaBytes(kArenaSize);
    nk_arena replyArena;
    nk_arena_init(&replyArena, replyArenaBytes.data(), replyArenaBytes.size());
    Message reply{};
    reply.header.riid = request.header.riid;
    reply.header.mid = request.header.mid;
    nk_msg_set_size(&reply.header, sizeof reply);
    if (nk_arena_store(&replyArena, &reply.text, answer.data(), answer.size()) != NK_EOK ||
        t.ops->reply(&t, &reply.header, &replyArena) != NK_EOK)
        return 1;
    ServiceLocatorUnregister(channel);
    std::printf("server: answered, done\n");
    return 0;
}

int Client(const std::string& text)
{
    // The server may still be starting: try for up to five seconds.
    Handle channel = INVALID_HANDLE;
    for (int attempt = 0; attempt < 50 && channel == INVALID_HANDLE; ++attempt) {
        channel = ServiceLocatorConnect(kChannel);
        if (channel == INVALID_HANDLE)
            KnSleep(100);
    }
    NkNosTransport t;
    if (channel == INVALID_HANDLE || NkNosTransport_Init(&t, channel, nullptr, 0) != NK_EOK) {
        NosLogf(NOS_LOG_ERROR, __FILE__, __LINE__, "demo-client", "nobody serves \"%s\"", kChannel);
        return 1;
    }
    const uint32_t riid = ServiceLocatorGetRiid(channel, kEndpoint);
    if (riid == INVALID_RIID)
        return 1;

    std::vector<uint8_t> requestArenaBytes(kArenaSize);
    nk_arena requestArena;
    nk_arena_init(&requestArena, requestArenaBytes.data(), requestArenaBytes.size());
    Message request{};
    request.header.riid = static_cast<uint16_t>(riid);
    request.header.mid = 0;
    nk_msg_set_size(&request.header, sizeof request);
    if (nk_arena_store(&requestArena, &request.text, text.data(), text.size()) != NK_EOK)
        return 1;
    std::vector<uint8_t> replyArenaBytes(kArenaSize);
    nk_arena replyArena;
    nk_arena_init(&replyArena, replyArenaBytes.data(), replyArenaBytes.size());
    Message reply{};
    nk_msg_set_size(&reply.header, sizeof reply);
    std::printf("client: calling \"%s\" endpoint \"%s\" (riid %u) with \"%s\"\n", kChannel, kEndpoint, riid,
                text.c_str());
    std::fflush(stdout);
    const Retcode rc = t.ops->call(&t, &request.header, &requestArena, &reply.header, &replyArena);
    if (rc != NK_EOK) {
        std::printf("client: call failed with %d\n", rc);
        return 1;
    }
    const auto* answer = static_cast<const char*>(nk_arena_get(&replyArena, reply.text));
    if (answer == nullptr)
        return 1;
    std::printf("client: reply \"%.*s\"\n", static_cast<int>(reply.text.size), answer);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "server") == 0)
        return Server();
    if (argc == 3 && std::strcmp(argv[1], "client") == 0)
        return Client(argv[2]);
    std::fprintf(stderr, "usage: %s server | client <text>\n", argv[0]);
    return 2;
}
