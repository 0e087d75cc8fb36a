// GOST R 34.11-2012 (256-bit) throughput: our core against libgcrypt and
// nettle on the same buffers, in one run. After the usual table, prints the
// MB/s of each and the ratio of ours to the faster library per buffer size.
//   nds_hash_bench [--benchmark_min_time=...]
#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <nettle/streebog.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "nds/gost_core.h"
#include "nds/nds.h"
#include "streebog_compress.h"

namespace {

const std::vector<std::uint8_t>& Buffer(std::size_t size) {
    static std::map<std::size_t, std::vector<std::uint8_t>> buffers;
    auto& b = buffers[size];
    if (b.empty()) {
        b.resize(size);
        std::mt19937_64 rng(size);
        for (auto& v : b) {
            v = static_cast<std::uint8_t>(rng());
        }
    }
    return b;
}

void Finish(benchmark::State& state, std::size_t size) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(size));
}

void BM_Nds(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& data = Buffer(size);
    std::uint8_t out[32];
    for (auto _ : state) {
        NdsHasher* h = nullptr;
        NdsCreateHasher(NDS_HASH_GOST_2012_256, &h);
        NdsUpdateHasher(h, data.data(), size);
        NdsFinalizeHasher(h, out, sizeof(out));
        NdsDeleteHasher(h);
        benchmark::DoNotOptimize(out);
    }
    Finish(state, size);
}

// The portable compression routine, which CPUs without AVX use.
void BM_NdsPortable(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& data = Buffer(size);
    const auto& impl = nds::gost::PortableImpl();
    for (auto _ : state) {
        std::uint64_t h[8], n[8] = {}, sigma[8] = {};
        std::fill(h, h + 8, 0x0101010101010101ULL);
        impl.compress_blocks(h, n, sigma, data.data(), size / 64);
        benchmark::DoNotOptimize(h);
    }
    Finish(state, size);
}

void BM_Libgcrypt(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& data = Buffer(size);
    std::uint8_t out[32];
    for (auto _ : state) {
        gcry_md_hash_buffer(GCRY_MD_STRIBOG256, out, data.data(), size);
        benchmark::DoNotOptimize(out);
    }
    Finish(state, size);
}

void BM_Nettle(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& data = Buffer(size);
    std::uint8_t out[32];
    for (auto _ : state) {
        streebog512_ctx ctx;
        streebog256_init(&ctx);
        streebog256_update(&ctx, size, data.data());
        streebog256_digest(&ctx, sizeof(out), out);
        benchmark::DoNotOptimize(out);
    }
    Finish(state, size);
}

constexpr std::int64_t kSizes[] = {1024, 64 * 1024, 64 * 1024 * 1024};

void Register() {
    const std::pair<const char*, void (*)(benchmark::State&)> cases[] = {
        {"ours", BM_Nds}, {"ours_portable", BM_NdsPortable}, {"libgcrypt", BM_Libgcrypt}, {"nettle", BM_Nettle}};
    for (const auto size : kSizes) {
        for (const auto& [name, fn] : cases) {
            benchmark::RegisterBenchmark(name, fn)->Arg(size)->Unit(benchmark::kMicrosecond);
        }
    }
}

// Console output plus a closing table of MB/s and ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) {
                continue;
            }
            const auto it = run.counters.find("bytes_per_second");
            if (it == run.counters.end()) {
                continue;
            }
            const std::string name = run.benchmark_name();
            const auto slash = name.find('/');
            mbps_[std::stoll(name.substr(slash + 1))][name.substr(0, slash)] = it->second.value / 1e6;
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-10s %10s %10s %10s %10s %14s\n", "size", "ours", "portable", "libgcrypt", "nettle",
                    "ours/faster");
        for (auto& [size, m] : mbps_) {
            const double faster = std::max(m["libgcrypt"], m["nettle"]);
            std::printf("%-10lld %10.1f %10.1f %10.1f %10.1f %13.2fx\n", static_cast<long long>(size), m["ours"],
                        m["ours_portable"], m["libgcrypt"], m["nettle"], faster > 0 ? m["ours"] / faster : 0.0);
        }
        std::printf("(MB/s = 10^6 bytes per CPU second; core: %s)\n", GostHash_Implementation());
    }

private:
    std::map<long long, std::map<std::string, double>> mbps_;
};

}  // namespace

int main(int argc, char** argv) {
    if (gcry_check_version(nullptr) == nullptr || NdsInitializeLibrary() != 0) {
        std::fprintf(stderr, "nds_hash_bench: library initialisation failed\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    Register();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    NdsDeInitializeLibrary();
    return 0;
}
