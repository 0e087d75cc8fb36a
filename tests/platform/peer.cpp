// Test peer: the other process of the platform tests. Modes:
//   serve <channel> [--endpoints a,b,...] [--gate]   echo server (see peer_protocol.h);
//                                  prints "ready", then "got <tag>" per request; with
//                                  --gate it waits for a line on stdin before each reply
//   call <channel> <tag> [<method> [<param>]]   one call; prints "calling" before it,
//                                  then "rc=<code> tag=<reply tag>"
//   raw <channel> <garbage>        sends one malformed or unwelcome frame (see Garbage)
//   cm-connect <service> <tag>     KnCmConnect, prints "riid=<r>" or "connect=<code>",
//                                  then one echo call and "rc=<code> tag=<reply tag>"
#include "peer_protocol.h"

#include <nos/kernel.h>
#include <nos/platform.h>
#include <nos_host/frame.h>
#include <nos_host/host.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace peer;

std::vector<std::string> Split(const std::string& text)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1)
        parts.push_back(text.substr(start, comma - start));
    parts.push_back(text.substr(start));
    return parts;
}

void Say(const std::string& line)
{
    std::cout << line << std::endl;
}

int Serve(const std::string& channel, int argc, char** argv)
{
    bool gate = false;
    for (int i = 0; i < argc; ++i) {
        const std::string option = argv[i];
        if (option == "--gate") {
            gate = true;
        } else if (option == "--endpoints" && i + 1 < argc) {
            const auto names = Split(argv[++i]);
            std::vector<const char*> pointers;
            for (const auto& name : names)
                pointers.push_back(name.c_str());
            if (NosHostSetEndpoints(channel.c_str(), pointers.data(), pointers.size()) != NK_EOK)
                return 2;
        }
    }
    uint32_t riid = 0;
    const Handle handle = ServiceLocatorRegister(channel.c_str(), nullptr, 0, &riid);
    Handle sync = INVALID_HANDLE;
    NkNosTransport t;
    if (handle == INVALID_HANDLE || KnIpcCreateSyncObject(&sync) != NK_EOK ||
        NkNosTransportSync_Init(&t, handle, INVALID_HANDLE, sync) != NK_EOK)
        return 2;
    Say("ready");

    std::vector<uint8_t> requestBuffer(kServerMessageCapacity);
    std::vector<uint8_t> arenaBuffer(kServerArenaCapacity);
    std::vector<uint8_t> replyBuffer(kServerMessageCapacity);
    std::vector<uint8_t> replyArenaBuffer(kServerArenaCapacity);
    auto* request = reinterpret_cast<Request*>(requestBuffer.data());
    for (;;) {
        nk_msg_set_size(&request->header, kServerMessageCapacity);
        nk_arena arena;
        nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
        const Retcode rc = t.ops->recv(&t, &request->header, &arena);
        if (rc == NK_EAGAIN)
            continue;
        if (rc != NK_EOK)
            return 3;
        Say("got " + std::to_string(request->tag));
        if (gate) {
            std::string line;
            if (!std::getline(std::cin, line))
                return 4;
        }
        const uint32_t requestSize = nk_msg_size(&request->header);
        std::memcpy(replyBuffer.data(), requestBuffer.data(), requestSize);
        auto* reply = reinterpret_cast<nk_message*>(replyBuffer.data());
        nk_arena replyArena;
        nk_arena_init(&replyArena, replyArenaBuffer.data(), replyArenaBuffer.size());
        switch (request->header.mid) {
        case kErrorReply:
            reply->size |= NK_MSG_ERROR_FLAG;
            [[fallthrough]];
        case kEcho:
            std::memcpy(replyArenaBuffer.data(), arena.start, nk_arena_used(&arena));
            replyArena.current += nk_arena_used(&arena);
            break;
        case kArenaOf:
            for (uint32_t i = 0; i < request->param && i < replyArenaBuffer.size(); ++i)
                *replyArena.current++ = static_cast<uint8_t>(i * 7);
            break;
        case kDie:
            std::_Exit(5);
        case kSleepThenEcho:
            KnSleep(request->param);
            break;
        case kUnregister:
            ServiceLocatorUnregister(handle);
            for (;;)
                KnSleep(1000);
        case kMessageOf:
            if (request->param > kServerMessageCapacity || request->param < sizeof(nk_message))
                return 6;
            std::memset(replyBuffer.data() + requestSize, 0xAB, kServerMessageCapacity - requestSize);
            nk_msg_set_size(reply, request->param);
            break;
        default:
            break;
        }
        const Retcode replied = t.ops->reply(&t, reply, &replyArena);
        if (replied != NK_EOK && replied != NK_EAGAIN)
            return 7;
    }
}

int CallOnce(NkNosTransport& t, uint32_t tag, uint16_t method, uint32_t param)
{
    Request request{};
    request.header.mid = method;
    nk_msg_set_size(&request.header, sizeof request);
    request.param = param;
    request.tag = tag;
    Request reply{};
    nk_msg_set_size(&reply.header, sizeof reply);
    std::vector<uint8_t> arenaBuffer(1024);
    nk_arena arena;
    nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
    Say("calling");
    const Retcode rc = t.ops->call(&t, &request.header, nullptr, &reply.header, &arena);
    Say("rc=" + std::to_string(rc) + " tag=" + std::to_string(reply.tag));
    return rc == NK_EOK ? 0 : 1;
}

int Call(const std::string& channel, uint32_t tag, uint16_t method, uint32_t param)
{
    const Handle handle = ServiceLocatorConnect(channel.c_str());
    NkNosTransport t;
    if (handle == INVALID_HANDLE || NkNosTransport_Init(&t, handle, nullptr, 0) != NK_EOK) {
        Say("connect failed");
        return 2;
    }
    return CallOnce(t, tag, method, param);
}

int CmConnect(const std::string& service, uint32_t tag)
{
    Handle handle = INVALID_HANDLE;
    uint32_t riid = INVALID_RIID;
    const Retcode rc = KnCmConnect(service.c_str(), 5000, &handle, &riid);
    if (rc != NK_EOK) {
        Say("connect=" + std::to_string(rc));
        return 2;
    }
    Say("riid=" + std::to_string(riid));
    NkNosTransport t;
    if (NkNosTransport_Init(&t, handle, nullptr, 0) != NK_EOK)
        return 2;
    return CallOnce(t, tag, kEcho, 0);
}

// A frame header as the test wants it, whatever the rules say.
std::vector<uint8_t> RawHeader(uint8_t kind, uint32_t messageLength, uint32_t arenaLength)
{
    nos_host::FrameHeader header;
    header.kind = static_cast<nos_host::FrameKind>(kind);
    header.messageLength = messageLength;
    header.arenaLength = arenaLength;
    header.sequence = 1;
    std::vector<uint8_t> bytes(nos_host::kFrameHeaderSize);
    nos_host::EncodeFrameHeader(header, std::span<uint8_t, nos_host::kFrameHeaderSize>(bytes.data(), bytes.size()));
    return bytes;
}

// Sends one packet of `header` followed by `payload` bytes of zeros.
bool SendPacket(int fd, std::vector<uint8_t> packet, size_t payload)
{
    packet.resize(packet.size() + payload);
    return ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

int Raw(const std::string& channel, const std::string& garbage)
{
    char dir[4096];
    if (NosHostRuntimeDir(dir, sizeof dir) != NK_EOK)
        return 2;
    const std::string path = std::string(dir) + "/" + channel + ".sock";
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return 2;
    const uint8_t request = static_cast<uint8_t>(nos_host::FrameKind::Request);
    const uint8_t reply = static_cast<uint8_t>(nos_host::FrameKind::Reply);
    bool sent = false;
    auto header = RawHeader(request, 32, 0);
    if (garbage == "bad-magic") {
        header[0] ^= 0xFF;
        sent = SendPacket(fd, header, 32);
    } else if (garbage == "bad-version") {
        header[4] = 9;
        sent = SendPacket(fd, header, 32);
    } else if (garbage == "bad-kind") {
        header[5] = 77;
        sent = SendPacket(fd, header, 32);
    } else if (garbage == "short-message") {
        sent = SendPacket(fd, RawHeader(request, 20, 0), 20);
    } else if (garbage == "huge-arena") {
        sent = SendPacket(fd, RawHeader(request, 32, nos_host::kArenaMax + 1), nos_host::kPacketMax - 32);
    } else if (garbage == "wrong-packet-length") {
        sent = SendPacket(fd, header, 31);
    } else if (garbage == "reply-kind") {
        sent = SendPacket(fd, RawHeader(reply, 32, 0), 32);
    } else if (garbage == "tiny-packet") {
        sent = ::send(fd, "hello", 5, MSG_NOSIGNAL) == 5;
    } else if (garbage == "truncated") {
        // Announces two packets' worth of payload and leaves after the first.
        sent = SendPacket(fd, RawHeader(request, 32, nos_host::kPacketMax), nos_host::kPacketMax - 32);
    } else if (garbage == "oversized") {
        // Well formed, but more arena than the server offers.
        const uint32_t arena = static_cast<uint32_t>(kServerArenaCapacity + 1);
        sent = SendPacket(fd, RawHeader(request, 32, arena), nos_host::kPacketMax - 32);
    } else if (garbage == "leave-before-reply") {
        sent = SendPacket(fd, header, 32);
    }
    ::close(fd);
    return sent ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s serve|call|raw|cm-connect <name> ...\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const std::string name = argv[2];
    const auto number = [&](int i, unsigned long fallback) {
        return i < argc ? std::strtoul(argv[i], nullptr, 0) : fallback;
    };
    if (mode == "serve")
        return Serve(name, argc - 3, argv + 3);
    if (mode == "call")
        return Call(name, static_cast<uint32_t>(number(3, 0)), static_cast<uint16_t>(number(4, kEcho)),
                    static_cast<uint32_t>(number(5, 0)));
    if (mode == "raw" && argc > 3)
        return Raw(name, argv[3]);
    if (mode == "cm-connect")
        return CmConnect(name, static_cast<uint32_t>(number(3, 0)));
    std::fprintf(stderr, "%s: unknown mode %s\n", argv[0], mode.c_str());
    return 2;
}
