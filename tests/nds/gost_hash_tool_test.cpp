// The gost-hash command-line tool, run as a process.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "gost_paths.h"
#include "nds_test_support.h"

namespace nds::test {
namespace {

namespace fs = std::filesystem;

struct Outcome {
    int exit_code = -1;
    std::string out;
    std::string err;
};

class GostHashToolTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* build = std::getenv("VERIFIER_BUILD_DIR");
        ASSERT_NE(build, nullptr);
        tool_ = fs::path(build) / "tools/host/gost-hash/gost-hash";
        ASSERT_TRUE(fs::exists(tool_)) << tool_;
        dir_ = fs::temp_directory_path() / ("gost-hash-test-" + std::to_string(::getpid()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    fs::path Write(const std::string& name, const Bytes& data) {
        const fs::path p = dir_ / name;
        std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(data.data()),
                                                 static_cast<std::streamsize>(data.size()));
        return p;
    }

    static std::string Slurp(const fs::path& p) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    Outcome Run(const std::string& args) {
        const fs::path out = dir_ / "stdout";
        const fs::path err = dir_ / "stderr";
        const std::string cmd =
            tool_.string() + " " + args + " >" + out.string() + " 2>" + err.string() + " </dev/null";
        const int status = std::system(cmd.c_str());
        Outcome o;
        o.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        o.out = Slurp(out);
        o.err = Slurp(err);
        return o;
    }

    fs::path tool_;
    fs::path dir_;
};

TEST_F(GostHashToolTest, Run_PrintsDigestLines) {
    const Bytes a = RandomBytes(100000, 21);
    const Bytes empty;
    const fs::path pa = Write("a.bin", a);
    const fs::path pe = Write("empty.bin", empty);
    Outcome o = Run(pa.string() + " " + pe.string());
    EXPECT_EQ(o.exit_code, 0);
    EXPECT_EQ(o.out, Hex(GcryptDigest(a, 256)) + "  " + pa.string() + "\n" + Hex(GcryptDigest(empty, 256)) + "  " +
                         pe.string() + "\n");
    EXPECT_EQ(o.err, "");
    o = Run("--512 " + pa.string());
    EXPECT_EQ(o.exit_code, 0);
    EXPECT_EQ(o.out, Hex(GcryptDigest(a, 512)) + "  " + pa.string() + "\n");
}

TEST_F(GostHashToolTest, Run_FormatAwareAddsTheFormat) {
    const PeImage image;
    const fs::path pe = Write("image.exe", image.Build());
    const Bytes plain = RandomBytes(500, 22);
    const fs::path pp = Write("plain.bin", plain);
    const Outcome o = Run("--format-aware " + pe.string() + " " + pp.string());
    EXPECT_EQ(o.exit_code, 0);
    EXPECT_EQ(o.out, Hex(GcryptDigest(image.Blanked(), 256)) + "  " + pe.string() + "  PE32\n" +
                         Hex(GcryptDigest(plain, 256)) + "  " + pp.string() + "  none\n");
}

TEST_F(GostHashToolTest, Run_UnreadableFileFailsWithExitOne) {
    const Bytes a = RandomBytes(10, 23);
    const fs::path pa = Write("a.bin", a);
    const fs::path missing = dir_ / "missing.bin";
    const Outcome o = Run(missing.string() + " " + pa.string() + " " + dir_.string());
    EXPECT_EQ(o.exit_code, 1);
    EXPECT_EQ(o.out, Hex(GcryptDigest(a, 256)) + "  " + pa.string() + "\n");
    EXPECT_EQ(o.err, "gost-hash: " + missing.string() + ": No such file or directory\n" + "gost-hash: " +
                         dir_.string() + ": Is a directory\n");
}

TEST_F(GostHashToolTest, Run_UsageAndHelp) {
    Outcome o = Run("--help");
    EXPECT_EQ(o.exit_code, 0);
    EXPECT_EQ(o.out.rfind("Usage: gost-hash [--512] [--format-aware] [--impl PATH] [FILE]...\n", 0), 0U);
    o = Run("--sha1");
    EXPECT_EQ(o.exit_code, 2);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err.rfind("gost-hash: unknown option '--sha1'\n", 0), 0U);
    // No file: standard input (empty here).
    o = Run("");
    EXPECT_EQ(o.exit_code, 0);
    EXPECT_EQ(o.out, Hex(GcryptDigest(nullptr, 0, 256)) + "  -\n");
}

// Each path the core has: forced by --impl when it runs here (the help marks
// it in use and the digest holds), refused with exit 2 when it does not.
TEST_F(GostHashToolTest, Run_ImplForcesACompressionPath) {
    const Bytes a = RandomBytes(5000, 24);
    const fs::path pa = Write("a.bin", a);
    const auto& paths = gost::Paths();
    for (std::size_t i = 0; i < paths.count; ++i) {
        const gost::Path& p = paths.items[i];
        SCOPED_TRACE(p.name);
        const std::string impl = std::string("--impl ") + p.name;
        Outcome o = Run(impl + " " + pa.string());
        if (p.missing != nullptr) {
            EXPECT_EQ(o.exit_code, 2);
            EXPECT_EQ(o.err.rfind(std::string("gost-hash: no compression path '") + p.name + "' runs here\n", 0), 0U);
            continue;
        }
        EXPECT_EQ(o.exit_code, 0);
        EXPECT_EQ(o.out, Hex(GcryptDigest(a, 256)) + "  " + pa.string() + "\n");
        o = Run(impl + " --help");
        EXPECT_NE(o.out.find(std::string("\n  ") + p.name + " (in use)\n"), std::string::npos) << o.out;
    }
    const Outcome o = Run("--impl sse " + pa.string());
    EXPECT_EQ(o.exit_code, 2);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err.rfind("gost-hash: no compression path 'sse' runs here\n\nCompression paths", 0), 0U) << o.err;
}

}  // namespace
}  // namespace nds::test
