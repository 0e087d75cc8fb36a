// One client process of the load test: sends Verify requests on its own
// connection to "verifier" and checks every reply against what that request
// must give.
//
//   load-client COUNT SEED RIID:HANDLE:CODE...
//
// Request i uses the kind (SEED + i * 7) modulo the number of kinds, so that
// clients interleave kinds differently. Prints "<sent> <wrong> <failed>" and
// exits 0 only when every reply came and was right.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <nos/platform.h>

#include "verifier_api/messages.h"

namespace {

struct Kind {
    std::uint16_t riid;
    std::uint32_t handle;
    std::uint32_t code;
};

bool ParseNumber(const std::string& text, unsigned long long limit, unsigned long long& value)
{
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &end, 0);
    return !text.empty() && errno == 0 && *end == '\0' && value <= limit;
}

bool ParseKind(const std::string& text, Kind& kind)
{
    const std::size_t first = text.find(':');
    const std::size_t second = text.find(':', first == std::string::npos ? first : first + 1);
    if (first == std::string::npos || second == std::string::npos)
        return false;
    unsigned long long riid = 0, handle = 0, code = 0;
    if (!ParseNumber(text.substr(0, first), 0xFFFF, riid) ||
        !ParseNumber(text.substr(first + 1, second - first - 1), 0xFFFFFFFF, handle) ||
        !ParseNumber(text.substr(second + 1), 0xFFFFFFFF, code))
        return false;
    kind = {static_cast<std::uint16_t>(riid), static_cast<std::uint32_t>(handle), static_cast<std::uint32_t>(code)};
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    unsigned long long count = 0, seed = 0;
    std::vector<Kind> kinds;
    for (int i = 3; i < argc; ++i) {
        Kind kind{};
        if (!ParseKind(argv[i], kind)) {
            std::fprintf(stderr, "load-client: bad kind \"%s\"\n", argv[i]);
            return 2;
        }
        kinds.push_back(kind);
    }
    if (argc < 4 || !ParseNumber(argv[1], 1000000, count) || !ParseNumber(argv[2], 1000000, seed)) {
        std::fprintf(stderr, "usage: load-client COUNT SEED RIID:HANDLE:CODE...\n");
        return 2;
    }
    const Handle channel = ServiceLocatorConnect("verifier");
    NkNosTransport transport{};
    if (channel == INVALID_HANDLE || NkNosTransport_Init(&transport, channel, nullptr, 0) != NK_EOK) {
        std::fprintf(stderr, "load-client: nobody serves \"verifier\"\n");
        return 1;
    }
    unsigned long long wrong = 0, failed = 0;
    for (unsigned long long i = 0; i < count; ++i) {
        const Kind& kind = kinds[(seed + i * 7) % kinds.size()];
        nv_IVerifier_Verify_req request{};
        request.base_.riid = kind.riid;
        request.base_.mid = nv_IVerifier_Verify_mid;
        nk_msg_set_size(&request.base_, sizeof request);
        request.handle = kind.handle;
        nv_IVerifier_Verify_res reply{};
        nk_msg_set_size(&reply.base_, sizeof reply);
        if (transport.ops->call(&transport, &request.base_, nullptr, &reply.base_, nullptr) != NK_EOK) {
            ++failed;
            continue;
        }
        const std::uint32_t code = nk_msg_is_error(&reply.base_) ? static_cast<std::uint32_t>(reply.result) : 0u;
        if (code != kind.code || reply.base_.riid != kind.riid || reply.base_.mid != nv_IVerifier_Verify_mid) {
            ++wrong;
            std::fprintf(stderr, "load-client: request %llu (riid %u, handle 0x%x) got 0x%08x, wants 0x%08x\n", i,
                         kind.riid, kind.handle, code, kind.code);
        }
    }
    (void)KnHandleClose(channel);
    std::printf("%llu %llu %llu\n", count, wrong, failed);
    return wrong == 0 && failed == 0 ? 0 : 1;
}
