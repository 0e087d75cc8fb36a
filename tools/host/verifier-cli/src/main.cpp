// verifier-cli: a host client of the Verifier entity, one Verify request per
// run.
//
// Exit status: 0 the result is 0; 1 the result is a failure (its code is
// printed); 2 bad command line or a transport failure.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <nos/platform.h>

#include "command_line.h"
#include "eka/result_code.h"
#include "session_text.h"
#include "verifier_api/messages.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitError = 2;

constexpr const char* kChannel = "verifier";
constexpr const char* kProductEndpoint = "Verifier.product";
constexpr const char* kApplistEndpoint = "Verifier.applist";

constexpr const char* kUsage = R"usage(Usage: verifier-cli verify applist|product HANDLE [--raw]

Sends one Verify request to the Verifier entity on the channel "verifier"
over the host platform (runtime directory: NOS_RUNTIME_DIR; NOS_CALL_TIMEOUT_MS
bounds the call), on the endpoint "Verifier.applist" (the session's
application list) or "Verifier.product" (its update archive), and prints the
result as 0x%08x with its message, e.g. "0x00000000 (No error)".

HANDLE is the session's registry handle in decimal or 0x-hexadecimal, at most
0xFFFFFFFF (a larger one is refused). Only its low 24 bits count: the entity
reads those, so 0x1000001 asks for session 1, and 0xFFFFFF is no handle.

  --raw       also print the 32 reply bytes in hexadecimal, before the result
  -h, --help  this text
  --version   the version

Exit status: 0 the result is 0; 1 the result is a failure; 2 bad command line,
no verifier serving, or a transport failure.
)usage";

struct Options {
    const char* endpoint = nullptr;
    std::uint32_t handle = 0;
    bool raw = false;
    bool help = false;
};

using update_registry::UsageError;

Options ParseOptions(int argc, char** argv)
{
    Options options;
    update_registry::ArgumentReader args(argc, argv);
    std::vector<std::string> operands;
    while (!args.Done()) {
        const std::string arg = args.Next();
        if (arg == "-h" || arg == "--help")
            options.help = true;
        else if (arg == "--raw")
            options.raw = true;
        else if (arg.starts_with('-') && arg != "-")
            throw UsageError("unknown option '" + arg + "'");
        else
            operands.push_back(arg);
    }
    if (options.help)
        return options;
    if (operands.empty() || operands[0] != "verify")
        throw UsageError(operands.empty() ? "no command given" : "unknown command '" + operands[0] + "'");
    if (operands.size() != 3)
        throw UsageError("verify needs a package kind and a handle");
    if (operands[1] == "applist")
        options.endpoint = kApplistEndpoint;
    else if (operands[1] == "product")
        options.endpoint = kProductEndpoint;
    else
        throw UsageError("unknown package kind '" + operands[1] + "' (applist or product)");
    options.handle = update_registry::HandleOperand(operands[2], 0xFFFFFFFF, "0xFFFFFFFF (32 bits)");
    return options;
}

// One exchange on a connected channel; the transport's code.
Retcode Call(Handle channel, std::uint16_t riid, std::uint32_t handle, nv_IVerifier_Verify_res& reply)
{
    NkNosTransport transport{};
    if (const Retcode rc = NkNosTransport_Init(&transport, channel, nullptr, 0); rc != NK_EOK)
        return rc;
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    request.base_.mid = nv_IVerifier_Verify_mid;
    nk_msg_set_size(&request.base_, sizeof(request));
    request.handle = handle;
    reply = nv_IVerifier_Verify_res{};
    nk_msg_set_size(&reply.base_, sizeof(reply));
    return transport.ops->call(&transport, &request.base_, nullptr, &reply.base_, nullptr);
}

void PrintRaw(const nv_IVerifier_Verify_res& reply)
{
    unsigned char bytes[sizeof(reply)];
    std::memcpy(bytes, &reply, sizeof(reply));
    std::string line;
    for (std::size_t i = 0; i < sizeof(bytes); ++i)
        line += fmt::format("{}{:02x}", i == 0 ? "" : " ", bytes[i]);
    std::puts(line.c_str());
}

int Run(const Options& options)
{
    const Handle channel = ServiceLocatorConnect(kChannel);
    if (channel == INVALID_HANDLE) {
        std::fprintf(stderr, "verifier-cli: no verifier serves the channel \"%s\"\n", kChannel);
        return kExitError;
    }
    const std::uint32_t riid = ServiceLocatorGetRiid(channel, options.endpoint);
    if (riid >= INVALID_RIID) {
        (void)KnHandleClose(channel);
        std::fprintf(stderr, "verifier-cli: the verifier has no endpoint \"%s\"\n", options.endpoint);
        return kExitError;
    }
    nv_IVerifier_Verify_res reply{};
    const Retcode rc = Call(channel, static_cast<std::uint16_t>(riid), options.handle, reply);
    (void)KnHandleClose(channel);
    if (rc != NK_EOK) {
        std::fprintf(stderr, "verifier-cli: the call failed with transport code %d\n", rc);
        return kExitError;
    }
    if (options.raw)
        PrintRaw(reply);
    // A normal reply is the bare header and carries no result.
    const eka::result_t result = nk_msg_is_error(&reply.base_) ? reply.result : 0;
    std::puts(eka::FormatResultCode(result).c_str());
    return result == 0 ? kExitOk : kExitFailed;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::puts("verifier-cli " VERIFIER_VERSION);
        return 0;
    }
    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "verifier-cli: %s\n%s", e.what(), kUsage);
        return kExitError;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    return Run(options);
}
