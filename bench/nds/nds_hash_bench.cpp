// GOST R 34.11-2012 (256-bit) throughput: our core, on every compression
// path this CPU runs, against libgcrypt and nettle on the same buffers, in
// one run. After the usual table, prints the MB/s of each and the ratio of
// each path to libgcrypt and to nettle per buffer size.
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
#include "gost_paths.h"

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

// Whole hashes through the Nds API, on the path forced for the run.
void BM_Nds(benchmark::State& state, const char* path) {
    if (!nds::gost::UsePath(path)) {
        state.SkipWithError("path not run on this CPU");
        return;
    }
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
    nds::gost::UseDefaultPath();
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

std::vector<std::string> RunPaths() {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < nds::gost::Paths().count; ++i) {
        const auto& p = nds::gost::Paths().items[i];
        if (p.missing == nullptr) {
            names.emplace_back(p.name);
        } else {
            std::printf("path %s not run: %s\n", p.name, p.missing);
        }
    }
    return names;
}

void Register(const std::vector<std::string>& paths) {
    for (const auto size : kSizes) {
        for (const auto& path : paths) {
            benchmark::RegisterBenchmark(path.c_str(), BM_Nds, path.c_str())->Arg(size)->Unit(benchmark::kMicrosecond);
        }
        benchmark::RegisterBenchmark("libgcrypt", BM_Libgcrypt)->Arg(size)->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("nettle", BM_Nettle)->Arg(size)->Unit(benchmark::kMicrosecond);
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
        std::printf("\nMB/s = 10^6 bytes per CPU second; ratios are each path over libgcrypt / nettle\n");
        std::printf("%-10s", "size");
        for (const auto& path : paths_) {
            std::printf(" %10s", path.c_str());
        }
        std::printf(" %10s %10s", "libgcrypt", "nettle");
        for (const auto& path : paths_) {
            std::printf(" %15s", (path + " ratio").c_str());
        }
        std::printf("\n");
        for (auto& [size, m] : mbps_) {
            std::printf("%-10lld", size);
            for (const auto& path : paths_) {
                std::printf(" %10.1f", m[path]);
            }
            std::printf(" %10.1f %10.1f", m["libgcrypt"], m["nettle"]);
            for (const auto& path : paths_) {
                std::printf("   %5.2fx/%5.2fx", m[path] / m["libgcrypt"], m[path] / m["nettle"]);
            }
            std::printf("\n");
        }
        std::printf("(chosen at start-up: %s)\n", GostHash_Implementation());
    }

    explicit RatioReporter(std::vector<std::string> paths) : paths_(std::move(paths)) {}

private:
    std::vector<std::string> paths_;
    std::map<long long, std::map<std::string, double>> mbps_;
};

}  // namespace

int main(int argc, char** argv) {
    if (gcry_check_version(nullptr) == nullptr || NdsInitializeLibrary() != 0) {
        std::fprintf(stderr, "nds_hash_bench: library initialisation failed\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    const std::vector<std::string> paths = RunPaths();
    Register(paths);
    RatioReporter reporter(paths);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    NdsDeInitializeLibrary();
    return 0;
}
