// A stand-in of the signature-verifier entity that answers every request with
// an error reply carrying one completion code, given as the only argument
// (decimal or 0x hex). It serves until it is killed.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <nos/platform.h>
#include <signature_verifier/signature_verifier_idl.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s COMPLETION-CODE\n", argv[0]);
        return 2;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long code = std::strtoul(argv[1], &end, 0);
    if (errno != 0 || *end != '\0' || code > UINT32_MAX) {
        std::fprintf(stderr, "error-entity: bad completion code \"%s\"\n", argv[1]);
        return 2;
    }
    const Handle channel = ServiceLocatorRegister(NV_SIGNATURE_VERIFIER_CONNECTION, nullptr, 0, nullptr);
    NkNosTransport transport{};
    if (channel == INVALID_HANDLE || NkNosTransportSync_Init(&transport, channel, INVALID_HANDLE, INVALID_HANDLE) != NK_EOK) {
        std::fprintf(stderr, "error-entity: cannot serve \"%s\"\n", NV_SIGNATURE_VERIFIER_CONNECTION);
        return 1;
    }
    // Room for the largest request of these tests: the data and signature
    // of a small application list.
    std::vector<std::uint8_t> arenaBytes(1 << 20);
    for (;;) {
        nv_SignatureVerifier_req request{};
        nk_msg_set_size(&request.base, sizeof request);
        nk_arena arena{};
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
        const Retcode received = transport.ops->recv(&transport, &request.base, &arena);
        if (received == NK_EBADF)
            return 1;
        if (received != NK_EOK)
            continue;
        nv_SignatureVerifier_res reply{};
        reply.base.riid = request.base.riid;
        reply.base.mid = request.base.mid;
        reply.base.size = NV_SIGNATURE_VERIFIER_REPLY_SIZE | NK_MSG_ERROR_FLAG;
        reply.completion_code = static_cast<std::uint32_t>(code);
        (void)transport.ops->reply(&transport, &reply.base, nullptr);
    }
}
