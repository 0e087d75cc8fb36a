// gost-hash: GOST R 34.11-2012 digests of files, computed the way the
// verifier hashes an update archive (64 MiB chunks through the Nds library).
// Output is one "<hex digest>  <file>" line per file, as sha256sum prints.
// --impl forces one of the core's compression paths, for comparisons.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "gost_paths.h"
#include "nds/gost_core.h"
#include "nds/nds.h"

namespace {

constexpr std::size_t kChunkSize = 64U * 1024U * 1024U;
constexpr std::uint64_t kProgressThreshold = 256ULL * 1024U * 1024U;

const char* const kUsage =
    "Usage: gost-hash [--512] [--format-aware] [--impl PATH] [FILE]...\n"
    "Print GOST R 34.11-2012 digests, one \"<hex digest>  <file>\" line per FILE.\n"
    "With no FILE, or when FILE is -, read standard input.\n"
    "\n"
    "  --512           512-bit digest (default: 256-bit)\n"
    "  --format-aware  hash a PE32/PE32+ image with its checksum and certificate-table\n"
    "                  entry blanked; adds the format found (none, PE32, PE32+) after\n"
    "                  the file name\n"
    "  --impl PATH     hash with this compression path of the core (listed below)\n"
    "  --help          show this text\n"
    "  --version       show the version and the compression path in use\n"
    "\n"
    "Exit status: 0 if every file was hashed, 1 if any could not be read, 2 on bad usage.\n";

struct Options {
    int algorithm = NDS_HASH_GOST_2012_256;
    bool format_aware = false;
    bool help = false;
    bool version = false;
    const char* path = nullptr;
    std::vector<std::string> files;
};

// The core's compression paths, fastest first, with the one in use.
void PrintPaths(std::FILE* to) {
    std::fputs("\nCompression paths, fastest first:\n", to);
    const auto& paths = nds::gost::Paths();
    for (std::size_t i = 0; i < paths.count; ++i) {
        const auto& p = paths.items[i];
        if (p.missing != nullptr) {
            std::fprintf(to, "  %s (not run: %s)\n", p.name, p.missing);
        } else {
            std::fprintf(to, "  %s%s\n", p.name, std::strcmp(p.name, GostHash_Implementation()) == 0 ? " (in use)" : "");
        }
    }
}

const char* FormatName(int format) {
    switch (format) {
        case NDS_FORMAT_PE32:
            return "PE32";
        case NDS_FORMAT_PE32_PLUS:
            return "PE32+";
        default:
            return "none";
    }
}

// Owns one library reference for the life of the process.
class Library {
public:
    Library() : status_(NdsInitializeLibrary()) {}
    ~Library() {
        if (status_ == 0) {
            NdsDeInitializeLibrary();
        }
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    int status() const { return status_; }

private:
    int status_;
};

struct HasherDeleter {
    void operator()(NdsHasher* h) const { NdsDeleteHasher(h); }
};
using HasherPtr = std::unique_ptr<NdsHasher, HasherDeleter>;

class Progress {
public:
    Progress(const std::string& name, std::uint64_t total)
        : name_(name), total_(total), shown_(total > kProgressThreshold && isatty(STDERR_FILENO) == 1) {}
    void Update(std::uint64_t done) {
        if (shown_) {
            std::fprintf(stderr, "\r%s: %3u%% (%llu / %llu MiB)", name_.c_str(),
                         static_cast<unsigned>(done * 100 / total_),
                         static_cast<unsigned long long>(done >> 20),
                         static_cast<unsigned long long>(total_ >> 20));
        }
    }
    ~Progress() {
        if (shown_) {
            std::fputs("\r\033[K", stderr);
        }
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    std::string name_;
    std::uint64_t total_;
    bool shown_;
};

// Reads up to `size` bytes, retrying short reads; returns the count or -1.
ssize_t ReadFull(int fd, std::uint8_t* buffer, std::size_t size) {
    std::size_t got = 0;
    while (got < size) {
        const ssize_t n = read(fd, buffer + got, size - got);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

// Hashes one file; prints its line or an error. Returns false on error.
// `buffer` holds kChunkSize bytes; left uninitialised so that small files do
// not touch the whole of it.
bool HashFile(const Options& options, const std::string& name, std::uint8_t* buffer) {
    const bool is_stdin = name == "-";
    const int fd = is_stdin ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::fprintf(stderr, "gost-hash: %s: %s\n", name.c_str(), std::strerror(errno));
        return false;
    }
    struct stat st {};
    std::uint64_t total = 0;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        total = static_cast<std::uint64_t>(st.st_size);
        posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    NdsHasher* raw = nullptr;
    const int created = options.format_aware ? NdsCreateFormatAwareHasher(options.algorithm, &raw)
                                             : NdsCreateHasher(options.algorithm, &raw);
    HasherPtr hasher(raw);
    int rc = created;
    int read_error = 0;
    {
        Progress progress(name, total);
        std::uint64_t done = 0;
        while (rc == 0) {
            const ssize_t n = ReadFull(fd, buffer, kChunkSize);
            if (n < 0) {
                read_error = errno;
                break;
            }
            if (n == 0) {
                break;
            }
            rc = NdsUpdateHasher(hasher.get(), buffer, static_cast<std::size_t>(n));
            done += static_cast<std::uint64_t>(n);
            progress.Update(done);
        }
    }
    if (!is_stdin) {
        close(fd);
    }
    if (read_error != 0) {
        std::fprintf(stderr, "gost-hash: %s: %s\n", name.c_str(), std::strerror(read_error));
        return false;
    }
    std::uint8_t digest[64];
    const auto size = static_cast<std::size_t>(NdsGetDigestSize(options.algorithm));
    int format = NDS_FORMAT_NONE;
    if (rc == 0) {
        rc = options.format_aware ? NdsFinalizeFormatAwareHasher(hasher.get(), digest, size, &format)
                                  : NdsFinalizeHasher(hasher.get(), digest, size);
    }
    if (rc != 0) {
        std::fprintf(stderr, "gost-hash: %s: hashing failed (%d)\n", name.c_str(), rc);
        return false;
    }
    std::string line;
    static constexpr char kDigits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < size; ++i) {
        line += kDigits[digest[i] >> 4];
        line += kDigits[digest[i] & 15];
    }
    line += "  " + name;
    if (options.format_aware) {
        line += "  ";
        line += FormatName(format);
    }
    std::printf("%s\n", line.c_str());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool only_files = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (only_files || arg == "-" || arg.empty() || arg[0] != '-') {
            options.files.push_back(arg);
        } else if (arg == "--") {
            only_files = true;
        } else if (arg == "--512") {
            options.algorithm = NDS_HASH_GOST_2012_512;
        } else if (arg == "--format-aware") {
            options.format_aware = true;
        } else if (arg == "--impl") {
            if (i + 1 == argc) {
                std::fprintf(stderr, "gost-hash: '--impl' needs a PATH\n%s", kUsage);
                return 2;
            }
            options.path = argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--version") {
            options.version = true;
        } else {
            std::fprintf(stderr, "gost-hash: unknown option '%s'\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }
    if (options.path != nullptr && !nds::gost::UsePath(options.path)) {
        std::fprintf(stderr, "gost-hash: no compression path '%s' runs here\n", options.path);
        PrintPaths(stderr);
        return 2;
    }
    if (options.version) {
        std::printf("gost-hash %s\ncompression path: %s\n", VERIFIER_VERSION, GostHash_Implementation());
        return 0;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        PrintPaths(stdout);
        return 0;
    }
    if (options.files.empty()) {
        options.files.emplace_back("-");
    }
    Library library;
    if (library.status() != 0) {
        std::fprintf(stderr, "gost-hash: cannot initialise the hash library (%d)\n", library.status());
        return 1;
    }
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(kChunkSize);
    bool ok = true;
    for (const auto& file : options.files) {
        ok = HashFile(options, file, buffer.get()) && ok;
    }
    return ok ? 0 : 1;
}
