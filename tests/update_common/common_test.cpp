#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <functional>
#include <set>
#include <string>

#include <boost/uuid/entropy_error.hpp>
#include <gtest/gtest.h>

#include "eka/exception.h"
#include "update/common.h"

namespace {

TEST(PackageNamesTest, NameFunctions_GiveFixedNames)
{
    struct Case {
        const char* name;
        std::string (*function)();
        const char* expected;
    };
    const Case cases[] = {
        {"app list", update::GetAppListFileName, "appcollectioninfo.nos.vantor.json"},
        {"app list signature", update::GetAppListSignatureName, "appcollectioninfo.nos.vantor.json.sign"},
        {"archive", update::GetUpdateArchiveName, "update_vantor3.tar.gz"},
        {"archive signature", update::GetUpdateSignatureName, "update_vantor3.sign"},
    };
    for (const Case& c : cases) {
        std::string first = c.function();
        EXPECT_EQ(first, c.expected) << c.name;
        // A caller may change its copy without changing the next result.
        first += "x";
        EXPECT_EQ(c.function(), c.expected) << c.name;
    }
}

update::registry::ipc::SessionInfo SessionWithFolder(const char* folder)
{
    update::registry::ipc::SessionInfo info;
    info.path = folder;
    return info;
}

TEST(PackagePathTest, GetPackagePath_JoinsFolderUnderStorage)
{
    struct Case {
        const char* folder;
        const char* expected;
    };
    const Case cases[] = {
        {"abc", "/update_storage/abc"},
        {"a/b", "/update_storage/a/b"},
        {"abc/", "/update_storage/abc/"},
        {"../x", "/update_storage/../x"},  // not resolved: the registry owns the folder names
        {"/tmp/x", "/tmp/x"},              // an absolute folder replaces the root
        {"/", "/"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(update::GetPackagePath(SessionWithFolder(c.folder)).native(), c.expected) << c.folder;
}

TEST(PackagePathTest, GetPackagePath_FilesOfOnePackage)
{
    const std::filesystem::path dir = update::GetPackagePath(SessionWithFolder("abc"));
    EXPECT_EQ((dir / update::GetAppListFileName()).native(), "/update_storage/abc/appcollectioninfo.nos.vantor.json");
    EXPECT_EQ((dir / update::GetAppListSignatureName()).native(),
              "/update_storage/abc/appcollectioninfo.nos.vantor.json.sign");
    EXPECT_EQ((dir / update::GetUpdateArchiveName()).native(), "/update_storage/abc/update_vantor3.tar.gz");
    EXPECT_EQ((dir / update::GetUpdateSignatureName()).native(), "/update_storage/abc/update_vantor3.sign");
}

TEST(PackagePathTest, GetPackagePath_EmptyFolderThrows)
{
    try {
        update::GetPackagePath(SessionWithFolder(""));
        FAIL() << "nothing thrown";
    } catch (const eka::ResultCodeException& e) {
        EXPECT_EQ(static_cast<std::uint32_t>(e.result()), 0x80000071u);
        EXPECT_EQ(e.description(), u"empty package folder");
        EXPECT_STREQ(e.file(), "shared/update/common/src/common");
        EXPECT_EQ(e.line(), 54);
        ASSERT_NE(e.error_info(), nullptr);
        EXPECT_EQ(e.error_info()->Get(eka::error_info::Result), static_cast<int>(0x80000071u));
    }
}

TEST(GenerateUuidTest, GenerateUuid_DistinctVersion4Rfc4122)
{
    std::set<std::array<std::uint8_t, 16>> seen;
    for (int i = 0; i < 64; ++i) {
        const eka::guid_t id = update::GenerateUuid();
        EXPECT_EQ(id.bytes[6] & 0xF0, 0x40) << "version nibble of call " << i;
        EXPECT_EQ(id.bytes[8] & 0xC0, 0x80) << "variant bits of call " << i;
        EXPECT_TRUE(seen.insert(id.bytes).second) << "repeated value at call " << i;
    }
}

// What a child process saw when it called GenerateUuid after `prepare`.
struct ChildOutcome {
    int status = 0;
    std::string report;
};

// Runs GenerateUuid in a child process, so that the faults `prepare` makes
// (failing system calls) stay there. The child reports
// "<errcode> <what>" of the entropy error, or why there was none.
ChildOutcome GenerateUuidInChild(const std::function<bool()>& prepare)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return {-1, "pipe failed"};
    const pid_t pid = ::fork();
    if (pid < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        return {-1, "fork failed"};
    }
    if (pid == 0) {
        ::close(fds[0]);
        ::alarm(10);  // a hang ends the child with SIGALRM
        std::string report;
        if (!prepare()) {
            report = "prepare failed, errno " + std::to_string(errno);
        } else {
            try {
                update::GenerateUuid();
                report = "no exception";
            } catch (const boost::uuids::entropy_error& e) {
                report = std::to_string(e.errcode()) + " " + e.what();
            }
        }
        const ssize_t written = ::write(fds[1], report.data(), report.size());
        ::_exit(written == static_cast<ssize_t>(report.size()) ? 0 : 3);
    }
    ::close(fds[1]);
    ChildOutcome outcome;
    char buffer[256];
    ssize_t got = 0;
    while ((got = ::read(fds[0], buffer, sizeof buffer)) > 0)
        outcome.report.append(buffer, static_cast<std::size_t>(got));
    ::close(fds[0]);
    ::waitpid(pid, &outcome.status, 0);
    return outcome;
}

// Makes every call of the system call `nr` in this process return `result`
// (an errno, or 0 for a read at end of file) without reaching the kernel.
// The sanitizer runtimes need neither call while the child runs.
bool FailSystemCall(long nr, unsigned result)
{
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(nr), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (result & SECCOMP_RET_DATA)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
}

TEST(GenerateUuidTest, GenerateUuid_DeviceFailuresCarryTextAndErrno)
{
    struct Case {
        const char* name;
        std::function<bool()> prepare;
        std::string report;
    };
    const Case cases[] = {
        {"device cannot be opened", [] { return FailSystemCall(SYS_openat, EACCES); },
         std::to_string(EACCES) + " open /dev/urandom"},
        {"read fails", [] { return FailSystemCall(SYS_read, EIO); }, std::to_string(EIO) + " get_random_bytes"},
        {"read denied", [] { return FailSystemCall(SYS_read, EPERM); }, std::to_string(EPERM) + " get_random_bytes"},
        // A device at end of file must not make the generator spin.
        {"read hits end of file", [] { return FailSystemCall(SYS_read, 0); }, std::to_string(EIO) + " get_random_bytes"},
    };
    for (const Case& c : cases) {
        const ChildOutcome outcome = GenerateUuidInChild(c.prepare);
        ASSERT_TRUE(WIFEXITED(outcome.status)) << c.name << ": child status " << outcome.status;
        EXPECT_EQ(WEXITSTATUS(outcome.status), 0) << c.name;
        EXPECT_EQ(outcome.report, c.report) << c.name;
    }
}

}  // namespace
