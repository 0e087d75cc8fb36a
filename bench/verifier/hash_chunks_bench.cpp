// Where the product verifier's time over a plain hash of the archive goes:
// the signature checker's GetHash (a fresh zero-filled 64 MiB buffer for
// every chunk, as its contract asks) against the same chunked hashing into
// one buffer reused for every chunk, zeroed before each read or not.
//
// The file is VERIFIER_BENCH_HASH_MIB MiB (default 256) of fixed pseudo-random
// bytes in the temporary directory, made once and removed at exit.

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <benchmark/benchmark.h>
#include <nds/nds.h>
#include <signature_verifier/update_verifier.h>

namespace {

constexpr std::size_t kChunk = 64u * 1024u * 1024u;

class DataFile {
public:
    DataFile()
    {
        const char* mib = std::getenv("VERIFIER_BENCH_HASH_MIB");
        m_size = static_cast<std::size_t>(mib != nullptr ? std::stoul(mib) : 256u) * 1024u * 1024u;
        std::string pattern = (std::filesystem::temp_directory_path() / "verifier-hash-bench-XXXXXX").string();
        const int fd = mkstemp(pattern.data());
        if (fd < 0)
            throw std::system_error(errno, std::generic_category(), "mkstemp");
        close(fd);
        m_path = pattern;
        std::ofstream out(m_path, std::ios::binary);
        std::mt19937_64 random(20261122);
        std::vector<std::uint64_t> block(1024 * 1024 / sizeof(std::uint64_t));
        for (std::size_t written = 0; written < m_size; written += block.size() * sizeof(std::uint64_t)) {
            for (auto& word : block)
                word = random();
            out.write(reinterpret_cast<const char*>(block.data()),
                      static_cast<std::streamsize>(block.size() * sizeof(std::uint64_t)));
        }
        if (!out)
            throw std::runtime_error("cannot write " + m_path.string());
    }
    ~DataFile()
    {
        std::error_code ignored;
        std::filesystem::remove(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    std::size_t size() const { return m_size; }

private:
    std::filesystem::path m_path;
    std::size_t m_size = 0;
};

const DataFile& File()
{
    static const DataFile file;
    return file;
}

void BM_CheckerGetHash(benchmark::State& state)
{
    signature_verifier::wrapper::UpdateVerifier checker;
    std::vector<std::uint8_t> hash;
    for (auto _ : state) {
        if (checker.GetHash(File().path(), hash) != 0 || hash.size() != 32) {
            state.SkipWithError("GetHash failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * File().size()));
}

// The chunked hashing with one buffer for all chunks; `zero` clears it
// before each read, as a fresh zero-filled buffer would be.
void HashReused(benchmark::State& state, bool zero)
{
    const std::unique_ptr<char[]> buffer(new char[kChunk]);
    std::uint8_t digest[32];
    NdsInitializeLibrary();
    for (auto _ : state) {
        std::ifstream in(File().path(), std::ios::binary);
        NdsHasher* hasher = nullptr;
        if (NdsCreateHasher(1, &hasher) < 0) {
            state.SkipWithError("NdsCreateHasher failed");
            break;
        }
        for (std::size_t offset = 0; offset < File().size(); offset += kChunk) {
            const std::size_t length = std::min(File().size() - offset, kChunk);
            if (zero)
                std::memset(buffer.get(), 0, length);
            in.read(buffer.get(), static_cast<std::streamsize>(length));
            NdsUpdateHasher(hasher, buffer.get(), length);
        }
        NdsFinalizeHasher(hasher, digest, sizeof(digest));
        NdsDeleteHasher(hasher);
        benchmark::DoNotOptimize(digest);
    }
    NdsDeInitializeLibrary();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * File().size()));
}

void BM_ReusedBufferZeroed(benchmark::State& state) { HashReused(state, true); }
void BM_ReusedBuffer(benchmark::State& state) { HashReused(state, false); }

BENCHMARK(BM_CheckerGetHash)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReusedBufferZeroed)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReusedBuffer)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
