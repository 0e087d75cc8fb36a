#include "support/runtime_dir.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace test_support {
namespace {

std::optional<std::string> Replace(const char* name, const std::string& value)
{
    const char* old = std::getenv(name);
    std::optional<std::string> saved = old != nullptr ? std::optional<std::string>(old) : std::nullopt;
    ::setenv(name, value.c_str(), 1);
    return saved;
}

void Restore(const char* name, const std::optional<std::string>& value)
{
    if (value)
        ::setenv(name, value->c_str(), 1);
    else
        ::unsetenv(name);
}

}  // namespace

RuntimeDir::RuntimeDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "nos-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot make a runtime directory from " + pattern);
    m_path = pattern;
    m_oldDir = Replace("NOS_RUNTIME_DIR", m_path.string());
    m_oldTimeout = Replace("NOS_CALL_TIMEOUT_MS", "10000");
}

RuntimeDir::~RuntimeDir()
{
    Restore("NOS_RUNTIME_DIR", m_oldDir);
    Restore("NOS_CALL_TIMEOUT_MS", m_oldTimeout);
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> RuntimeDir::Files() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace test_support
