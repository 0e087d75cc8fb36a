// The host registry's state file: what a start accepts, what it cleans up,
// and that a change is durable once answered.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host_registry.h"
#include "session_text.h"
#include "support/process.h"
#include "support/runtime_dir.h"

namespace {

namespace fs = std::filesystem;

// Every fsync of this process: the inode synced, and the inode that the
// watched path had at that moment.
struct Sync {
    ino_t synced;
    ino_t watched;
};
std::vector<Sync> g_syncs;
fs::path g_watched;

ino_t Inode(const fs::path& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

// Interposes libc's fsync for the registry code linked into this test.
extern "C" int fsync(int fd)
{
    struct stat status {};
    if (::fstat(fd, &status) == 0)
        g_syncs.push_back({status.st_ino, g_watched.empty() ? 0 : Inode(g_watched)});
    static const auto real = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fsync"));
    return real(fd);
}

namespace update_registry {
namespace {

using update::registry::ipc::PackageType;
using update::registry::ipc::SessionInfo;
using update::registry::ipc::UpdateState;

constexpr const char* kId1 = "6f3f1f4a-75a6-46bb-9a1f-b43b0e3cba13";
constexpr const char* kId2 = "0e9b5c2d-1111-4222-8333-944455556666";

// A scratch directory (the runtime directory, unused as such) with the
// storage and the state file in it.
class StateFileTest : public test_support::RuntimeDirTest {
protected:
    void Write(const std::string& text) const { std::ofstream(state, std::ios::binary) << text; }

    const fs::path& dir = runtime.Path();
    const fs::path storage = dir / "storage";
    const fs::path state = dir / "registry.json";
    const nlohmann::ordered_json good = {
        {"version", 1},
        {"next_handle", 3},
        {"sessions",
         {{{"handle", 1}, {"type", 1}, {"state", 4}, {"id", kId1}, {"path", (storage / kId1).string()}},
          {{"handle", 2}, {"type", 0}, {"state", 0}, {"id", kId2}, {"path", (storage / kId2).string()}}}}};
};

TEST_F(StateFileTest, Constructor_GoodFile_LoadedAndStaleTemporaryFilesRemoved)
{
    Write(good.dump());
    // Those of this pid (an earlier process's) or of no pid go; those of a
    // process that runs, or of another file, stay.
    const std::string temporary = ".registry.json.tmp.";
    const std::pair<std::string, bool> files[] = {{temporary + std::to_string(::getpid()), false},
                                                  {temporary + "x", false},
                                                  {temporary + std::to_string(::getppid()), true},
                                                  {".other.json.tmp.1", true}};
    for (const auto& [name, kept] : files)
        std::ofstream(dir / name) << "{";
    HostRegistry registry(storage, state);
    for (const auto& [name, kept] : files)
        EXPECT_EQ(fs::exists(dir / name), kept) << name;
    SessionInfo info;
    ASSERT_EQ(registry.GetInfo(1, info), 0);
    EXPECT_EQ(info, (SessionInfo{PackageType::AppList, UpdateState::Verified, *GuidFromText(kId1), storage / kId1}));
    unsigned int handle = 0;
    ASSERT_EQ(registry.Open(PackageType::Product, handle), 0);
    EXPECT_EQ(handle, 3u) << "next_handle is kept";
}

// The field changed (removed when the value is null), and the error after
// "state file <file>: ".
TEST_F(StateFileTest, Constructor_BadFile_StopsNamingTheField)
{
    const std::string elsewhere = (dir / "elsewhere").string();
    const std::string outside = (storage / ".." / "escape").string();
    const std::tuple<const char*, nlohmann::ordered_json, std::string> cases[] = {
        {"/version", 1.0, "the state: \"version\" is not an integer"},
        {"/version", 2, "the state: \"version\" is 2, expected 1"},
        {"/next_handle", 0, "the state: \"next_handle\" is 0, expected 1 to 16777215"},
        {"/extra", 1, "the state: unknown field \"extra\""},
        {"/sessions/0", 7, "session 0 is not an object"},
        {"/sessions/0/extra", 1, "session 0: unknown field \"extra\""},
        {"/sessions/1/handle", 1, "session 1: \"handle\" 1 is repeated"},
        {"/sessions/0/type", 2, "session 0: \"type\" is 2, expected 0 to 1"},
        {"/sessions/0/state", 1.5, "session 0: \"state\" is not an integer"},
        {"/sessions/0/state", 11, "session 0: \"state\" is 11, expected 0 to 10"},
        {"/sessions/0/id", "6f3f1f4a", "session 0: \"id\" '6f3f1f4a' is not a session id"},
        {"/sessions/1/id", kId1, "session 1: \"id\" '" + std::string(kId1) + "' is repeated"},
        {"/sessions/0/path", nullptr, "session 0 has no \"path\""},
        {"/sessions/0/path", elsewhere, "session 0: \"path\" '" + elsewhere + "' is not inside the storage " +
                                            storage.string()},
        {"/sessions/0/path", storage.string(), "session 0: \"path\" '" + storage.string() +
                                                   "' is not inside the storage " + storage.string()},
        {"/sessions/0/path", outside, "session 0: \"path\" '" + outside + "' has a \"..\" component"},
    };
    for (const auto& [field, value, message] : cases) {
        SCOPED_TRACE(std::string(field) + " = " + value.dump());
        nlohmann::ordered_json bad = good;
        const nlohmann::ordered_json::json_pointer pointer(field);
        if (value.is_null())
            bad.at(pointer.parent_pointer()).erase(pointer.back());
        else
            bad[pointer] = value;
        Write(bad.dump());
        try {
            HostRegistry registry(storage, state);
            ADD_FAILURE() << "accepted";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()), "state file " + state.string() + ": " + message);
        }
        EXPECT_EQ(test_support::ReadFile(state), bad.dump()) << "the file is left as it was";
    }
}

TEST_F(StateFileTest, Open_SyncsTheDirectoryAfterTheRename)
{
    HostRegistry registry(storage, state);
    g_syncs.clear();
    g_watched = state;
    unsigned int handle = 0;
    ASSERT_EQ(registry.Open(PackageType::AppList, handle), 0);
    g_watched.clear();
    ASSERT_EQ(g_syncs.size(), 2u);
    EXPECT_EQ(g_syncs[0].synced, Inode(state)) << "the new file first";
    EXPECT_EQ(g_syncs[1].synced, Inode(dir)) << "then its directory";
    EXPECT_EQ(g_syncs[1].watched, Inode(state)) << "once the new file has its name";
}

}  // namespace
}  // namespace update_registry
