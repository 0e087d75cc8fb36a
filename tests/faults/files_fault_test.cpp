// Package files that change while the archive is hashed, that cannot be
// read, or that are not files at all.
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <future>
#include <thread>
#include <optional>
#include <string>

#include "fault_setting.h"

namespace verifier_faults {
namespace {

using namespace std::chrono_literals;
using signature_verifier::host::testing::WriteBytes;

// The archive is hashed in reads of 64 MiB; a 65 MiB archive takes two, with
// the hashing of the first in between.
constexpr std::uint64_t kChunk = 0x4000000;
constexpr std::uint64_t kArchiveSize = kChunk + 1024 * 1024;
constexpr std::uint32_t kInvalidSignature = 0xFFFF4000u;  // completion code 1, encoded

// Where process `pid` stands in `file`: the offset of the descriptor it has
// open on it, if any.
std::optional<std::uint64_t> ReadOffset(pid_t pid, const fs::path& file)
{
    const fs::path fds = "/proc/" + std::to_string(pid) + "/fd";
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(fds, error)) {
        std::error_code linkError;
        if (fs::read_symlink(entry.path(), linkError) != file)
            continue;
        std::ifstream info("/proc/" + std::to_string(pid) + "/fdinfo/" + entry.path().filename().string());
        std::string key;
        std::uint64_t position = 0;
        if (info >> key >> position && key == "pos:")
            return position;
    }
    return std::nullopt;
}

class FileFaultTest : public FaultTest {
protected:
    void SetUp() override
    {
        StartEntities();
        StartAll();
    }

    // A product package whose archive is `bytes`, signed.
    Package Archive(const Bytes& bytes)
    {
        return MakePackage(PackageType::Product, {{verifier_e2e::kArchive, bytes}});
    }

    // A new package with the signed files of `model`.
    Package CopyOf(const Package& model)
    {
        const Package package = verifier_e2e::OpenPackage(entities().Registry(), PackageType::Product);
        for (const char* name : {verifier_e2e::kArchive, verifier_e2e::kArchiveSign})
            fs::copy_file(model.folder / name, package.folder / name);
        return package;
    }

    // Sends Verify for `package` and runs `act` once the verifier has read
    // the first 64 MiB of the archive and not yet the rest, that is while it
    // hashes the first piece. Fails the test when that moment is not seen.
    std::uint32_t VerifyActingMidHash(const Package& package, const std::function<void(const fs::path&)>& act)
    {
        const fs::path archive = package.folder / verifier_e2e::kArchive;
        const pid_t verifier = entities().Verifier().pid();
        auto answer = std::async(std::launch::async, [&] { return Verify(kProduct, package.handle); });
        const bool seen = WaitFor(
            [&] {
                const auto offset = ReadOffset(verifier, archive);
                return offset && *offset >= kChunk && *offset < kArchiveSize;
            },
            60s);
        EXPECT_TRUE(seen) << "the verifier was never seen between the two reads";
        if (seen)
            act(archive);
        EXPECT_EQ(answer.wait_for(120s), std::future_status::ready);
        return answer.get();
    }
};

TEST_F(FileFaultTest, Archive_ChangedWhileHashed)
{
    const Package genuine = Archive(PseudoRandom(kArchiveSize, 3));
    struct Case {
        const char* name;
        std::function<void(const fs::path&)> act;
        std::uint32_t code;
    };
    const Case cases[] = {
        // The second read comes up short: zeros are hashed in place of the
        // missing bytes, which the signature does not cover.
        {"truncated", [](const fs::path& p) { fs::resize_file(p, kChunk / 2); }, kInvalidSignature},
        // The same inode changed under the reader: the new bytes are hashed.
        {"overwritten in place",
         [](const fs::path& p) {
             std::fstream out(p, std::ios::in | std::ios::out | std::ios::binary);
             out.seekp(static_cast<std::streamoff>(kArchiveSize - 4));
             out.write("\x00\xFF\x00\xFF", 4);
         },
         kInvalidSignature},
        // The open descriptor keeps reading the inode it opened: the archive
        // that was there passes, whatever the path now holds.
        {"replaced by rename",
         [](const fs::path& p) {
             WriteBytes(p.string() + ".new", PseudoRandom(1000, 9));
             fs::rename(p.string() + ".new", p);
         },
         0u},
        {"deleted", [](const fs::path& p) { fs::remove(p); }, 0u},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(VerifyActingMidHash(CopyOf(genuine), c.act), c.code);
    }
    ExpectServing();
}

// Proof that a short read hashes zeros in place of the missing bytes, and
// only there: an archive signed over its first 64.5 MiB followed by zeros,
// whose file then holds other bytes after 64.5 MiB, passes when it is cut
// there while the first piece is hashed, so that the second read comes up
// half full.
TEST_F(FileFaultTest, Archive_TruncatedWhileHashedHashesZeros)
{
    constexpr std::uint64_t kKept = kChunk + 512 * 1024;
    Bytes bytes = PseudoRandom(kKept, 4);
    bytes.resize(kArchiveSize, 0);
    const Package package = Archive(bytes);
    Bytes other = bytes;
    std::fill(other.begin() + static_cast<std::ptrdiff_t>(kKept), other.end(), std::uint8_t{0x11});
    WriteBytes(package.folder / verifier_e2e::kArchive, other);
    EXPECT_EQ(Verify(kProduct, package.handle), kInvalidSignature);
    EXPECT_EQ(VerifyActingMidHash(package, [](const fs::path& p) { fs::resize_file(p, kKept); }), 0u);
}

// A file of the package replaced by something that is not a readable file.
TEST_F(FileFaultTest, PackageFiles_NotReadableFiles)
{
    using Make = std::function<void(const fs::path&)>;
    const Make directory = [](const fs::path& p) {
        fs::remove(p);
        fs::create_directory(p);
    };
    const Make loop = [](const fs::path& p) {
        fs::remove(p);
        fs::create_symlink(p.filename(), p);
    };
    const Make unreadable = [](const fs::path& p) { fs::permissions(p, fs::perms::none); };
    constexpr std::uint32_t kDirectory = verifier_e2e::kCheckerDirectoryFailure;
    struct Case {
        const char* name;
        std::uint16_t riid;
        const char* file;
        Make make;
        std::uint32_t code;
        bool needsPermissions;
    };
    const Case cases[] = {
        {"list is a directory", kApplist, verifier_e2e::kList, directory, kDirectory, false},
        {"list signature is a directory", kApplist, verifier_e2e::kListSign, directory, kDirectory, false},
        {"archive is a directory", kProduct, verifier_e2e::kArchive, directory, 0x80000151u, false},
        {"archive signature is a directory", kProduct, verifier_e2e::kArchiveSign, directory, kDirectory, false},
        // The existence test cannot read the status through a loop: the
        // file-system error, a standard exception.
        {"list is a symlink loop", kApplist, verifier_e2e::kList, loop, 0x8000004Bu, false},
        {"archive signature is a symlink loop", kProduct, verifier_e2e::kArchiveSign, loop, 0x8000004Bu, false},
        {"list unreadable", kApplist, verifier_e2e::kList, unreadable, 0x80000151u, true},
        {"archive unreadable", kProduct, verifier_e2e::kArchive, unreadable, 0x80000151u, true},
        {"archive signature unreadable", kProduct, verifier_e2e::kArchiveSign, unreadable, 0x80000151u, true},
    };
    // Permissions do not stop root: those rows need another user.
    const bool root = ::geteuid() == 0;
    int skipped = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.needsPermissions && root) {
            ++skipped;
            continue;
        }
        const Package package = c.riid == kApplist
                                    ? SignedList()
                                    : MakePackage(PackageType::Product, {{verifier_e2e::kArchive, PseudoRandom(4096, 5)}});
        c.make(package.folder / c.file);
        const std::uint32_t code = Verify(c.riid, package.handle);
        if (c.code == kDirectory)
            EXPECT_TRUE(verifier_e2e::IsCheckerDirectoryFailure(code)) << std::hex << code;
        else
            EXPECT_EQ(code, c.code);
    }
    if (skipped > 0)
        RecordProperty("permission_rows_not_run_as_root", skipped);
    ExpectServing();
}

}  // namespace
}  // namespace verifier_faults
