#include "host_registry.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

#include "eka/posix/result_code.h"
#include "eka/result_code.h"
#include "nos/logger/nos_logger.h"
#include "session_text.h"
#include "update/common.h"

namespace update_registry {
namespace {

using json = nlohmann::ordered_json;
using update::registry::ipc::kPackageTypeCount;
using update::registry::ipc::kUpdateStateCount;
using update::registry::ipc::PackageType;
using update::registry::ipc::SessionInfo;
using update::registry::ipc::UpdateState;

constexpr const char* kFile = "tools/host/update-registry/src/host_registry";
constexpr int kStateVersion = 1;

int SystemCode(int error) { return eka::posix::ResultCodeFromSystemError(static_cast<unsigned int>(error)); }

// Writes all of `bytes` to a new file beside `target` and renames it over
// `target`, so that a reader (or a restart after a kill) sees either the
// old state or the new one, never a part. Returns 0 or an errno value.
int WriteAtomically(const std::filesystem::path& target, std::string_view bytes)
{
    const std::filesystem::path temp =
        target.parent_path() / ("." + target.filename().string() + ".tmp." + std::to_string(getpid()));
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return errno;
    int error = 0;
    while (!bytes.empty() && error == 0) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            error = n < 0 ? errno : EIO;
        else
            bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    if (error == 0 && ::fsync(fd) != 0)
        error = errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0 && ::rename(temp.c_str(), target.c_str()) != 0)
        error = errno;
    if (error != 0)
        ::unlink(temp.c_str());
    return error;
}

[[noreturn]] void Invalid(const std::filesystem::path& file, const std::string& why)
{
    throw std::runtime_error("state file " + file.string() + ": " + why);
}

template <typename T>
T Field(const json& object, const char* name, const std::filesystem::path& file, const std::string& where)
{
    if (!object.is_object() || !object.contains(name))
        Invalid(file, where + " has no \"" + name + "\"");
    try {
        return object.at(name).get<T>();
    } catch (const json::exception&) {
        Invalid(file, where + ": \"" + name + "\" has the wrong type");
    }
}

}  // namespace

HostRegistry::HostRegistry(std::filesystem::path storage, std::optional<std::filesystem::path> stateFile,
                           IdSource newId)
    : m_storage(std::filesystem::absolute(storage).lexically_normal()), m_stateFile(std::move(stateFile)),
      m_newId(newId ? std::move(newId) : IdSource(update::GenerateUuid))
{
    std::filesystem::create_directories(m_storage);
    if (m_stateFile) {
        m_stateFile = std::filesystem::absolute(*m_stateFile);
        std::filesystem::create_directories(m_stateFile->parent_path());
        Load();
    }
}

void HostRegistry::Load()
{
    const std::filesystem::path& file = *m_stateFile;
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (!std::filesystem::exists(file))
            return;
        Invalid(file, "cannot be read");
    }
    json state;
    try {
        state = json::parse(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } catch (const json::parse_error& e) {
        Invalid(file, e.what());
    }
    if (Field<int>(state, "version", file, "the state") != kStateVersion)
        Invalid(file, "unknown version");
    const auto next = Field<std::uint32_t>(state, "next_handle", file, "the state");
    const json sessions = Field<json>(state, "sessions", file, "the state");
    if (!sessions.is_array())
        Invalid(file, "\"sessions\" is not a list");

    Sessions loaded;
    std::set<std::string> ids;
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        const json& s = sessions[i];
        const std::string where = "session " + std::to_string(i);
        const auto handle = Field<std::uint32_t>(s, "handle", file, where);
        const auto type = Field<unsigned int>(s, "type", file, where);
        const auto stage = Field<unsigned int>(s, "state", file, where);
        const auto idText = Field<std::string>(s, "id", file, where);
        const auto path = Field<std::string>(s, "path", file, where);
        const std::optional<eka::guid_t> id = GuidFromText(idText);
        if (handle == 0 || handle > kMaxHandle || loaded.contains(handle))
            Invalid(file, where + ": bad or repeated handle");
        if (type >= kPackageTypeCount || stage >= kUpdateStateCount)
            Invalid(file, where + ": type or state out of range");
        if (!id || !ids.insert(GuidToText(*id)).second)
            Invalid(file, where + ": bad or repeated id");
        if (path.empty())
            Invalid(file, where + ": empty path");
        loaded[handle] = SessionInfo{static_cast<PackageType>(type), static_cast<UpdateState>(stage), *id, path};
    }
    m_sessions = std::move(loaded);
    m_nextHandle = (next == 0 || next > kMaxHandle) ? 1 : next;
}

int HostRegistry::Save(const Sessions& sessions, std::uint32_t nextHandle) const
{
    if (!m_stateFile)
        return 0;
    json list = json::array();
    for (const auto& [handle, s] : sessions)
        list.push_back({{"handle", handle},
                        {"type", static_cast<unsigned int>(s.type)},
                        {"state", static_cast<unsigned int>(s.state)},
                        {"id", GuidToText(s.id)},
                        {"path", s.path.string()}});
    const json state{{"version", kStateVersion}, {"next_handle", nextHandle}, {"sessions", std::move(list)}};
    std::string text;
    try {
        text = state.dump(2) + "\n";
    } catch (const json::type_error& e) {
        // A path that is not UTF-8 has no JSON form.
        nos::logger::LogIfEnabled(nos::logger::LogLevel::Error, kFile, __LINE__, "Save", "cannot save the state: {}",
                                  e.what());
        return eka::result::InvalidArgument;
    }
    const int error = WriteAtomically(*m_stateFile, text);
    if (error != 0) {
        nos::logger::LogIfEnabled(nos::logger::LogLevel::Error, kFile, __LINE__, "Save",
                                  "cannot write the state file {}: {}", m_stateFile->string(),
                                  std::generic_category().message(error));
        return SystemCode(error);
    }
    return 0;
}

std::optional<std::uint32_t> HostRegistry::FreeHandle() const
{
    if (m_sessions.size() >= kMaxHandle)
        return std::nullopt;
    std::uint32_t candidate = m_nextHandle;
    for (;;) {
        if (candidate == 0 || candidate > kMaxHandle)
            candidate = 1;
        if (!m_sessions.contains(candidate))
            return candidate;
        ++candidate;
    }
}

int HostRegistry::Open(PackageType type, unsigned int& handle)
{
    if (static_cast<unsigned int>(type) >= kPackageTypeCount)
        return eka::result::InvalidArgument;
    std::lock_guard lock(m_mutex);
    const std::optional<std::uint32_t> free = FreeHandle();
    if (!free)
        return eka::result::InsufficientResources;

    SessionInfo info{type, UpdateState::Created, m_newId(), {}};
    for (const auto& [h, s] : m_sessions)
        if (s.id == info.id)
            return eka::result::Found;  // a repeated id would make GetHandle ambiguous
    info.path = m_storage / GuidToText(info.id);
    std::error_code ec;
    const bool created = std::filesystem::create_directories(info.path, ec);
    if (ec)
        return SystemCode(ec.value());

    Sessions next = m_sessions;
    next.emplace(*free, info);
    if (const int rc = Save(next, *free + 1); rc != 0) {
        if (created)
            std::filesystem::remove(info.path, ec);
        return rc;
    }
    m_sessions = std::move(next);
    m_nextHandle = *free + 1;
    handle = *free;
    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "Open", "session {} opened: {} {} in {}",
                              handle, PackageTypeName(type), GuidToText(info.id), info.path.string());
    return 0;
}

int HostRegistry::Close(unsigned int handle)
{
    std::lock_guard lock(m_mutex);
    if (!m_sessions.contains(handle))
        return eka::result::NotFound;
    Sessions next = m_sessions;
    next.erase(handle);
    if (const int rc = Save(next, m_nextHandle); rc != 0)
        return rc;
    m_sessions = std::move(next);
    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "Close", "session {} closed", handle);
    return 0;
}

int HostRegistry::GetSessions(std::vector<SessionInfo>& sessions) const
{
    std::lock_guard lock(m_mutex);
    std::vector<SessionInfo> all;
    all.reserve(m_sessions.size());
    for (const auto& [handle, s] : m_sessions)
        all.push_back(s);
    sessions = std::move(all);
    return 0;
}

int HostRegistry::GetHandle(const eka::guid_t& id, unsigned int& handle) const
{
    std::lock_guard lock(m_mutex);
    for (const auto& [h, s] : m_sessions) {
        if (s.id == id) {
            handle = h;
            return 0;
        }
    }
    return eka::result::NotFound;
}

int HostRegistry::SetState(unsigned int handle, UpdateState state)
{
    if (static_cast<unsigned int>(state) >= kUpdateStateCount)
        return eka::result::InvalidArgument;
    std::lock_guard lock(m_mutex);
    if (!m_sessions.contains(handle))
        return eka::result::NotFound;
    Sessions next = m_sessions;
    next.at(handle).state = state;
    if (const int rc = Save(next, m_nextHandle); rc != 0)
        return rc;
    m_sessions = std::move(next);
    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "SetState", "session {} is {}", handle,
                              UpdateStateName(state));
    return 0;
}

int HostRegistry::GetInfo(unsigned int handle, SessionInfo& info) const
{
    std::lock_guard lock(m_mutex);
    const auto found = m_sessions.find(handle);
    if (found == m_sessions.end())
        return eka::result::NotFound;
    info = found->second;
    return 0;
}

std::size_t HostRegistry::size() const
{
    std::lock_guard lock(m_mutex);
    return m_sessions.size();
}

}  // namespace update_registry
