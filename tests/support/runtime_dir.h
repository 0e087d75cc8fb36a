// A private runtime directory of the host platform.
//
// While a RuntimeDir lives, NOS_RUNTIME_DIR names a fresh directory under
// $TMPDIR (or /tmp), for this process and every child it starts, and
// NOS_CALL_TIMEOUT_MS bounds each platform call to 10 s, so that a broken
// peer fails a call instead of hanging the test. Both variables are restored
// and the directory is removed with its content on destruction. Make it
// before the first platform call that should use it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

class RuntimeDir {
public:
    RuntimeDir();
    ~RuntimeDir();
    RuntimeDir(const RuntimeDir&) = delete;
    RuntimeDir& operator=(const RuntimeDir&) = delete;

    const std::filesystem::path& Path() const noexcept { return m_path; }
    // Names of the entries in the directory, sorted.
    std::vector<std::string> Files() const;

private:
    std::filesystem::path m_path;
    std::optional<std::string> m_oldDir;
    std::optional<std::string> m_oldTimeout;
};

class RuntimeDirTest : public ::testing::Test {
protected:
    RuntimeDir runtime;
};

}  // namespace test_support
