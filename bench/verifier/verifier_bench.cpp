// Verify requests per second through the running Verifier entity, one client
// connection, one request at a time (the entity serves them one by one).
//
// The entities must be running in NOS_RUNTIME_DIR; bench/verifier/run-benchmarks
// starts them, makes a signed package and passes its session handle in
// VERIFIER_BENCH_HANDLE and the endpoint ("Verifier.applist" or
// "Verifier.product") in VERIFIER_BENCH_ENDPOINT.

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>
#include <nos/platform.h>

#include "verifier_api/messages.h"

namespace {

std::string Setting(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0')
        throw std::runtime_error(std::string(name) + " is not set; run bench/verifier/run-benchmarks");
    return value;
}

void BM_Verify(benchmark::State& state)
{
    const std::string endpoint = Setting("VERIFIER_BENCH_ENDPOINT");
    const auto handle = static_cast<std::uint32_t>(std::stoul(Setting("VERIFIER_BENCH_HANDLE"), nullptr, 0));
    const Handle channel = ServiceLocatorConnect("verifier");
    if (channel == INVALID_HANDLE) {
        state.SkipWithError("nobody serves \"verifier\"");
        return;
    }
    const std::uint32_t riid = ServiceLocatorGetRiid(channel, endpoint.c_str());
    NkNosTransport transport{};
    if (riid >= INVALID_RIID || NkNosTransport_Init(&transport, channel, nullptr, 0) != NK_EOK) {
        (void)KnHandleClose(channel);
        state.SkipWithError("no such endpoint");
        return;
    }
    nv_IVerifier_Verify_req request{};
    request.base_.riid = static_cast<std::uint16_t>(riid);
    request.base_.mid = nv_IVerifier_Verify_mid;
    nk_msg_set_size(&request.base_, sizeof(request));
    request.handle = handle;
    for (auto _ : state) {
        nv_IVerifier_Verify_res reply{};
        nk_msg_set_size(&reply.base_, sizeof(reply));
        const Retcode rc = transport.ops->call(&transport, &request.base_, nullptr, &reply.base_, nullptr);
        if (rc != NK_EOK || nk_msg_is_error(&reply.base_)) {
            state.SkipWithError(rc != NK_EOK ? "the call failed" : "the verification failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    (void)KnHandleClose(channel);
}
// The work is done in the entities' processes: wall time is what counts.
BENCHMARK(BM_Verify)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
