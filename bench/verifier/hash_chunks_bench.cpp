// Where the product verifier's time over a plain hash of the archive goes:
// the signature checker's GetHash (one buffer per call, zeroed only where a
// read left it short) against the same chunked hashing into a fresh
// zero-filled 64 MiB buffer for every chunk (what GetHash did before), and
// into one buffer reused for every chunk, zeroed before each read or not.
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

enum class Buffer { FreshPerChunk, ReusedZeroed, Reused };

// The chunked hashing through the Nds library, the buffer handled as `mode`
// says; a zeroed buffer is what a short read would leave.
void HashChunks(benchmark::State& state, Buffer mode)
{
    const std::unique_ptr<char[]> reused(new char[kChunk]);
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
            const std::unique_ptr<char[]> fresh(mode == Buffer::FreshPerChunk ? new char[length]() : nullptr);
            char* buffer = fresh ? fresh.get() : reused.get();
            if (mode == Buffer::ReusedZeroed)
                std::memset(buffer, 0, length);
            in.read(buffer, static_cast<std::streamsize>(length));
            NdsUpdateHasher(hasher, buffer, length);
        }
        NdsFinalizeHasher(hasher, digest, sizeof(digest));
        NdsDeleteHasher(hasher);
        benchmark::DoNotOptimize(digest);
    }
    NdsDeInitializeLibrary();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * File().size()));
}

void BM_FreshBufferPerChunk(benchmark::State& state) { HashChunks(state, Buffer::FreshPerChunk); }
void BM_ReusedBufferZeroed(benchmark::State& state) { HashChunks(state, Buffer::ReusedZeroed); }
void BM_ReusedBuffer(benchmark::State& state) { HashChunks(state, Buffer::Reused); }

BENCHMARK(BM_CheckerGetHash)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FreshBufferPerChunk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReusedBufferZeroed)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReusedBuffer)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
