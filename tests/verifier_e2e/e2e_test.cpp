// The four real processes (log storage, update registry, signature verifier,
// verifier) with a package signed by a test PKI (make-package): each path of
// a Verify once, with the exact lines that reach the log storage.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "e2e.h"
#include "support/process.h"
#include "support/runtime_dir.h"
#include "update/registry/ipc/proxy.h"

namespace verifier_e2e {
namespace {

using namespace test_support;
namespace fs = std::filesystem;

class VerifierE2eTest : public RuntimeDirTest {
protected:
    // The verifier's log-storage lines since the last call, once there are
    // `count` of them or 10 s have passed.
    std::vector<std::string> NewLines(size_t count)
    {
        std::vector<std::string> lines;
        for (int wait = 0; wait < 1000 && (lines = VerifierLines(ReadFile(runtime.Path() / "log.txt"))).size() <
                                              seen + count;
             ++wait)
            std::this_thread::sleep_for(10ms);
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(seen, lines.size())));
        seen += lines.size();
        return lines;
    }
    size_t seen = 0;
};

TEST_F(VerifierE2eTest, Verify_EachPathOnce)
{
    const fs::path dir = runtime.Path();
    ASSERT_EQ(std::system((VERIFIER_E2E_DIR "/make-package '" + dir.string() + "'").c_str()), 0);
    Process storage({program::kLogStorage, "--out", (dir / "log.txt").string()});
    ASSERT_TRUE(storage.WaitServing("nv.NvlogStorageEntity")) << storage.Log();
    Process registry({program::kUpdateRegistry, "--storage", (dir / "storage").string()});
    ASSERT_TRUE(registry.WaitServing("update_registry")) << registry.Log();
    Process checker({program::kSignatureVerifier, "--roots", (dir / "pki/roots").string()});
    ASSERT_TRUE(checker.WaitServing("nv.SignatureVerifierEntity")) << checker.Log();
    Process verifier({program::kVerifier});
    ASSERT_TRUE(verifier.WaitServing("verifier")) << verifier.Log();

    // The start-up lines are the entity test's; here they only come first.
    ASSERT_EQ(NewLines(3).size(), 3u);

    // A session of each kind (0 product, 1 applist), holding the signed files.
    const auto sessions = update::registry::ipc::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry");
    unsigned int handles[2] = {};
    std::string folders[2];
    for (const std::uint16_t riid : {kProduct, kApplist}) {
        update::registry::ipc::SessionInfo info;
        ASSERT_EQ(sessions->Open(static_cast<update::registry::ipc::PackageType>(riid), handles[riid]), 0);
        ASSERT_EQ(sessions->GetInfo(handles[riid], info), 0);
        folders[riid] = info.path.string();
        fs::copy(dir / "package", info.path);
    }
    const std::string list = folders[kApplist] + "/appcollectioninfo.nos.vantor.json";
    const std::string archive = folders[kProduct] + "/update_vantor3.tar.gz";
    const std::string failed = "[verifier][error][manage_exception] : ";
    const std::string during = " ; detailed: exception during: Verify";
    struct Path {
        const char* name;
        std::uint16_t riid;
        std::function<void()> before;
        std::uint32_t code;
        std::vector<std::string> lines;
    };
    const Path paths[] = {
        {"signed list", kApplist, [] {}, 0,
         {"[verifier][info][applist_verifier:54] AppList file " + list + " verification with signature file " + list +
          ".sign was succeeded"}},
        {"signed archive", kProduct, [] {}, 0,
         {"[verifier][info][product_verifier:57] Update file " + archive + " verification with signature file " +
          folders[kProduct] + "/update_vantor3.sign was succeeded"}},
        {"one byte of the archive flipped: the signature verifier's refusal", kProduct,
         [&] {
             std::fstream file(archive, std::ios::in | std::ios::out | std::ios::binary);
             const char byte = static_cast<char>(file.seekg(5000).get() ^ 1);
             file.seekp(5000).put(byte);
         },
         0xFFFF4000,
         {failed + "Expression failedFailed to verify update file " + archive + " with signature file " +
          folders[kProduct] + "/update_vantor3.sign: 0xffff4000 (Unknown result code)" + during}},
    };
    for (const Path& path : paths) {
        SCOPED_TRACE(path.name);
        path.before();
        EXPECT_EQ(Verify(path.riid, handles[path.riid]), path.code);
        EXPECT_EQ(NewLines(path.lines.size()), path.lines);
    }
    EXPECT_FALSE(verifier.Wait(0ms).has_value()) << "the verifier still serves";
}

}  // namespace
}  // namespace verifier_e2e
