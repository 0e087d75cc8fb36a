// Calls from this process to an echo server in a child process, over the
// host platform: empty calls (round trips per second) and calls that carry a
// request arena (bytes per second).
#include <nos/platform.h>

#include <benchmark/benchmark.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kChannel = "bench-echo";
constexpr size_t kMaxArena = 16u << 20;

// Child: answers every request with an empty 24-byte reply until killed.
[[noreturn]] void Serve(int readyFd)
{
    const Handle channel = ServiceLocatorRegister(kChannel, nullptr, 0, nullptr);
    NkNosTransport t;
    if (channel == INVALID_HANDLE || NkNosTransportSync_Init(&t, channel, INVALID_HANDLE, INVALID_HANDLE) != NK_EOK)
        std::_Exit(1);
    (void)!::write(readyFd, "r", 1);
    ::close(readyFd);
    std::vector<uint8_t> arenaBytes(kMaxArena);
    nk_message request{};
    for (;;) {
        nk_msg_set_size(&request, sizeof request);
        nk_arena arena;
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
        const Retcode rc = t.ops->recv(&t, &request, &arena);
        if (rc == NK_EAGAIN)
            continue;
        if (rc != NK_EOK)
            std::_Exit(2);
        nk_message reply = request;
        nk_msg_set_size(&reply, sizeof reply);
        t.ops->reply(&t, &reply, nullptr);
    }
}

NkNosTransport Connect(benchmark::State& state)
{
    NkNosTransport t{};
    const Handle channel = ServiceLocatorConnect(kChannel);
    if (channel == INVALID_HANDLE || NkNosTransport_Init(&t, channel, nullptr, 0) != NK_EOK)
        state.SkipWithError("no echo server");
    return t;
}

void BM_EmptyCall(benchmark::State& state)
{
    NkNosTransport t = Connect(state);
    nk_message request{};
    request.mid = 1;
    nk_msg_set_size(&request, sizeof request);
    nk_message reply{};
    for (auto _ : state) {
        nk_msg_set_size(&reply, sizeof reply);
        if (t.ops->call(&t, &request, nullptr, &reply, nullptr) != NK_EOK) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EmptyCall)->UseRealTime();

void BM_CallWithRequestArena(benchmark::State& state)
{
    NkNosTransport t = Connect(state);
    std::vector<uint8_t> data(static_cast<size_t>(state.range(0)), 0x5A);
    nk_message request{};
    nk_msg_set_size(&request, sizeof request);
    nk_message reply{};
    for (auto _ : state) {
        nk_arena arena;
        nk_arena_init(&arena, data.data(), data.size());
        arena.current = arena.end;
        nk_msg_set_size(&reply, sizeof reply);
        if (t.ops->call(&t, &request, &arena, &reply, nullptr) != NK_EOK) {
            state.SkipWithError("call failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CallWithRequestArena)->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    char dir[] = "/tmp/nos-bench-XXXXXX";
    if (::mkdtemp(dir) == nullptr)
        return 1;
    ::setenv("NOS_RUNTIME_DIR", dir, 1);
    int ready[2];
    if (::pipe(ready) != 0)
        return 1;
    const pid_t server = ::fork();
    if (server == 0) {
        ::close(ready[0]);
        Serve(ready[1]);
    }
    ::close(ready[1]);
    char byte = 0;
    const bool up = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);

    int rc = 1;
    if (up) {
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        rc = 0;
    } else {
        std::fprintf(stderr, "the echo server did not start\n");
    }
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return rc;
}
