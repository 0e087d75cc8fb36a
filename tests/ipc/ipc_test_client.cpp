// Client process of the IPC tests.
//
//   ipc_test_client static CHANNEL VALUE...    connects through the service locator
//   ipc_test_client dynamic SERVICE VALUE...   connects through the connection manager
//
// Prints "connected <riid>", then "reply <value> <result>" for each VALUE
// sent. A VALUE "wait" reads one line from standard input first. Exit codes:
// 0 done, 1 usage, 2 "connect failed <rc>", 3 "call failed <rc>".
#include "echo_messages.h"

#include <nos/kernel.h>
#include <nos/service_locator.h>
#include <nos/transport.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace {

int Fail(const char* what, Retcode rc, int exitCode)
{
    std::printf("%s %d\n", what, rc);
    std::fflush(stdout);
    return exitCode;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || (std::strcmp(argv[1], "static") != 0 && std::strcmp(argv[1], "dynamic") != 0)) {
        std::fprintf(stderr, "usage: %s static|dynamic NAME VALUE...\n", argv[0]);
        return 1;
    }
    Handle handle = INVALID_HANDLE;
    uint32_t riid = 0;
    if (std::strcmp(argv[1], "static") == 0) {
        handle = ServiceLocatorConnect(argv[2]);
        if (handle == INVALID_HANDLE)
            return Fail("connect failed", NK_ENOENT, 2);
    } else if (const Retcode rc = KnCmConnect(argv[2], 10000, &handle, &riid); rc != NK_EOK) {
        return Fail("connect failed", rc, 2);
    }
    std::printf("connected %u\n", riid);
    std::fflush(stdout);

    NkNosTransport transport{};
    if (const Retcode rc = NkNosTransport_Init(&transport, handle, nullptr, 0); rc != NK_EOK)
        return Fail("connect failed", rc, 2);
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "wait") == 0) {
            std::string line;
            std::getline(std::cin, line);
            continue;
        }
        ipc_test::EchoRequest request{};
        request.header.riid = static_cast<uint16_t>(riid);
        nk_msg_set_size(&request.header, sizeof request);
        request.value = static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10));
        ipc_test::EchoResponse response{};
        nk_msg_set_size(&response.header, sizeof response);
        if (const Retcode rc = transport.ops->call(&transport, &request.header, nullptr, &response.header, nullptr);
            rc != NK_EOK)
            return Fail("call failed", rc, 3);
        std::printf("reply %u %d\n", response.value, response.result);
        std::fflush(stdout);
    }
    return 0;
}
