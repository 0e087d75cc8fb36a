// SignatureChecker::CheckBuffer on data of 1 KiB to 64 MiB (Streebog-256 of
// the data, the GOST signature and the chain of three certificates) and
// CheckHash (the signature and the chain alone).
#include <benchmark/benchmark.h>

#include <map>
#include <memory>

#include "gost_engine.h"
#include "signature_checker.h"
#include "pki_fixture.h"

namespace {

using namespace signature_verifier::host;
using namespace signature_verifier::host::testing;

struct Fixture {
    GostEngine engine;
    TempDir dir{"signature-checker-bench"};
    TestPki pki{dir.Path() / "pki"};
    SignatureChecker checker;
    std::map<std::size_t, std::pair<ByteVector, ByteVector>> signed_; // size -> data, signature

    Fixture() { checker.LoadRoots(pki.File("roots")); }

    const std::pair<ByteVector, ByteVector>& Signed(std::size_t size)
    {
        auto it = signed_.find(size);
        if (it == signed_.end()) {
            ByteVector data(size);
            for (std::size_t i = 0; i < size; ++i)
                data[i] = static_cast<std::uint8_t>(i * 131u >> 3);
            ByteVector signature = pki.SignPackage(data);
            it = signed_.emplace(size, std::make_pair(std::move(data), std::move(signature))).first;
        }
        return it->second;
    }
};

Fixture& Shared()
{
    static Fixture fixture;
    return fixture;
}

void BM_CheckBuffer(benchmark::State& state)
{
    Fixture& fx = Shared();
    const auto& [data, signature] = fx.Signed(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        const Outcome outcome = fx.checker.CheckBuffer(data, signature);
        if (!outcome.Ok())
            state.SkipWithError(outcome.detail.c_str());
        benchmark::DoNotOptimize(outcome.code);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_CheckBuffer)->Arg(1 << 10)->Arg(1 << 20)->Arg(64 << 20)->Unit(benchmark::kMillisecond);

void BM_CheckHash(benchmark::State& state)
{
    Fixture& fx = Shared();
    const auto& [data, signature] = fx.Signed(1 << 10);
    const ByteVector hash = Streebog256(data);
    for (auto _ : state) {
        const Outcome outcome = fx.checker.CheckHash(NV_SIGNATURE_VERIFIER_HASH_STREEBOG256, hash, signature);
        if (!outcome.Ok())
            state.SkipWithError(outcome.detail.c_str());
        benchmark::DoNotOptimize(outcome.code);
    }
}
BENCHMARK(BM_CheckHash)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
