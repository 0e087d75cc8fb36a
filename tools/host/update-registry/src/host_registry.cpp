#include "host_registry.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <initializer_list>
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

// The names of the temporary files of `target` start with this.
std::string TemporaryPrefix(const std::filesystem::path& target)
{
    return "." + target.filename().string() + ".tmp.";
}

// Makes the entries of `directory` durable (a rename in it, say). Returns 0
// or an errno value.
int SyncDirectory(const std::filesystem::path& directory)
{
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    int error = ::fsync(fd) == 0 ? 0 : errno;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    return error;
}

// Whether the temporary file whose name ends in `suffix` may be in use: its
// suffix names a process that still runs, other than this one (a file of this
// pid was left by an earlier process that had it). A second registry started
// on the same state file must not pull a file from under the first one's
// write.
bool WriterMayBeAlive(std::string_view suffix)
{
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(suffix.data(), suffix.data() + suffix.size(), pid);
    if (error != std::errc{} || end != suffix.data() + suffix.size() || pid <= 0 || pid == ::getpid())
        return false;
    return ::kill(pid, 0) == 0 || errno == EPERM;
}

// Writes all of `bytes` to a new file beside `target`, renames it over
// `target` and syncs their directory, so that a reader (or a restart after
// a kill or a power cut) sees either the old state or the new one, never a
// part, and the new one once this returns 0. Returns 0 or an errno value;
// after a failure of the last step the file may hold the new state.
int WriteAtomically(const std::filesystem::path& target, std::string_view bytes)
{
    const std::filesystem::path temp = target.parent_path() / (TemporaryPrefix(target) + std::to_string(getpid()));
    const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
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
    if (error != 0) {
        ::unlink(temp.c_str());
        return error;
    }
    return SyncDirectory(target.parent_path());
}

[[noreturn]] void Invalid(const std::filesystem::path& file, const std::string& why)
{
    throw std::runtime_error("state file " + file.string() + ": " + why);
}

// One object of the state file ("the state" or "session N"), read strictly:
// a fault throws, naming the file, the object and the field.
class StrictObject {
public:
    StrictObject(const json& value, const std::filesystem::path& file, std::string where)
        : m_value(value), m_file(file), m_where(std::move(where))
    {
        if (!m_value.is_object())
            Invalid(m_file, m_where + " is not an object");
    }

    // Fails unless the fields are exactly `names`: first on an unknown
    // field, then on a missing one.
    void ExactFields(std::initializer_list<const char*> names) const
    {
        for (const auto& [key, value] : m_value.items())
            if (std::find(names.begin(), names.end(), key) == names.end())
                Fail("unknown field \"" + key + "\"");
        for (const char* name : names)
            if (!m_value.contains(name))
                Invalid(m_file, m_where + " has no " + Quoted(name));
    }

    const json& At(const char* name) const { return m_value.at(name); }

    // An integer written as one (not 1.0, not true) within [low, high].
    std::uint32_t Integer(const char* name, std::uint32_t low, std::uint32_t high) const
    {
        const json& field = At(name);
        if (!field.is_number_integer())
            Fail(Quoted(name) + " is not an integer");
        const bool inRange = field.is_number_unsigned()
                                 ? field.get<std::uint64_t>() >= low && field.get<std::uint64_t>() <= high
                                 : field.get<std::int64_t>() >= low && field.get<std::int64_t>() <= high;
        if (!inRange)
            Fail(Quoted(name) + " is " + field.dump() + ", expected " + std::to_string(low) +
                 (low == high ? "" : " to " + std::to_string(high)));
        return field.get<std::uint32_t>();
    }

    std::string Text(const char* name) const
    {
        const json& field = At(name);
        if (!field.is_string())
            Fail(Quoted(name) + " is not a string");
        return field.get<std::string>();
    }

    [[noreturn]] void Fail(const std::string& why) const { Invalid(m_file, m_where + ": " + why); }

    static std::string Quoted(const char* name) { return std::string("\"") + name + "\""; }

private:
    const json& m_value;
    const std::filesystem::path& m_file;
    std::string m_where;
};

// Why `path` is no package folder inside `storage` (absolute and normal), or "".
std::string OutsideStorage(const std::filesystem::path& path, const std::filesystem::path& storage)
{
    const std::string quoted = "'" + path.string() + "'";
    for (const auto& part : path)
        if (part == "..")
            return quoted + " has a \"..\" component";
    // Empty for a relative path.
    const std::filesystem::path inner = path.lexically_normal().lexically_relative(storage);
    if (inner.empty() || inner == "." || *inner.begin() == "..")
        return quoted + " is not inside the storage " + storage.string();
    return "";
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
        RemoveStaleTemporaryFiles();
        Load();
    }
}

void HostRegistry::RemoveStaleTemporaryFiles() const
{
    const std::string prefix = TemporaryPrefix(*m_stateFile);
    for (const auto& entry : std::filesystem::directory_iterator(m_stateFile->parent_path())) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with(prefix) || WriterMayBeAlive(std::string_view(name).substr(prefix.size())))
            continue;
        std::error_code error;
        std::filesystem::remove(entry.path(), error);
        if (error)
            Invalid(*m_stateFile, "cannot remove the stale temporary file " + entry.path().string() + ": " +
                                      error.message());
        nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "RemoveStaleTemporaryFiles",
                                  "removed the stale temporary file {}", entry.path().string());
    }
}

void HostRegistry::Load()
{
    const std::filesystem::path& file = *m_stateFile;
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (!std::filesystem::exists(file)) {
            nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "Load",
                                      "no state file {} yet: no sessions", file.string());
            return;
        }
        Invalid(file, "cannot be read");
    }
    json parsed;
    try {
        parsed = json::parse(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } catch (const json::parse_error& e) {
        Invalid(file, std::string("not JSON: ") + e.what());
    }
    const StrictObject state(parsed, file, "the state");
    state.ExactFields({"version", "next_handle", "sessions"});
    state.Integer("version", kStateVersion, kStateVersion);
    // After the last handle the next one is one above it, until it comes round.
    const std::uint32_t next = state.Integer("next_handle", 1, kMaxHandle + 1);
    const json& sessions = state.At("sessions");
    if (!sessions.is_array())
        state.Fail("\"sessions\" is not a list");

    Sessions loaded;
    std::set<std::string> ids;
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        const StrictObject session(sessions[i], file, "session " + std::to_string(i));
        session.ExactFields({"handle", "type", "state", "id", "path"});
        const std::uint32_t handle = session.Integer("handle", 1, kMaxHandle);
        if (loaded.contains(handle))
            session.Fail("\"handle\" " + std::to_string(handle) + " is repeated");
        const auto type = static_cast<PackageType>(session.Integer("type", 0, kPackageTypeCount - 1));
        const auto stage = static_cast<UpdateState>(session.Integer("state", 0, kUpdateStateCount - 1));
        const std::string idText = session.Text("id");
        const std::optional<eka::guid_t> id = GuidFromText(idText);
        if (!id)
            session.Fail("\"id\" '" + idText + "' is not a session id");
        if (!ids.insert(GuidToText(*id)).second)
            session.Fail("\"id\" '" + idText + "' is repeated");
        const std::filesystem::path path = session.Text("path");
        if (const std::string why = OutsideStorage(path, m_storage); !why.empty())
            session.Fail("\"path\" " + why);
        loaded[handle] = SessionInfo{type, stage, *id, path};
    }
    m_sessions = std::move(loaded);
    m_nextHandle = next;
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
