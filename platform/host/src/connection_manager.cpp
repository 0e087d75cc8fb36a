// Name server and connection manager of the host platform.
//
// A process that publishes services listens on "<runtime dir>/cm.<pid>.sock"
// while it has at least one published; each published service has a record
// "<runtime dir>/<service>.service" that names the interface type and that
// socket. A client connects there, sends a CmConnect frame and waits for
// CmAccept (with the riid) or CmRefuse; after CmAccept the same connection
// carries requests and replies like a channel's.
#include "admission.h"
#include "channel.h"
#include "client.h"
#include "runtime.h"
#include "wire.h"

#include <nos/kernel.h>
#include <nos/log.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace nos_host;

namespace {

class NameServer final : public HandleObject {
public:
    explicit NameServer(std::string dir) : dir_(std::move(dir)) {}
    const std::string& Dir() const { return dir_; }

private:
    const std::string dir_;
};

std::string ServiceRecordPath(const std::string& dir, const std::string& service) { return dir + '/' + service + ".service"; }

using RequestKey = std::pair<std::string, std::string>;  // client, service

class ConnectionManager {
public:
    static ConnectionManager& Process()
    {
        static auto* manager = new ConnectionManager;  // never destroyed, see HandleTable::Process
        return *manager;
    }

    Retcode Publish(const std::string& dir, const std::string& type, const std::string& service)
    {
        std::lock_guard lock(mutex_);
        if (!listener_) {
            const std::string path = dir + "/cm." + std::to_string(::getpid()) + ".sock";
            const int fd = BindSeqpacket(path);
            if (fd < 0 || ::listen(fd, SOMAXCONN) != 0) {
                HostLog(NOS_LOG_ERROR, "connection manager socket \"%s\": %s", path.c_str(), std::strerror(errno));
                if (fd >= 0)
                    ::close(fd);
                return NK_EINVAL;
            }
            listener_ = std::make_unique<Listener>(fd, "connection manager");
            socketPath_ = path;
        }
        if (!WriteFileAtomically(ServiceRecordPath(dir, service), type + '\n' + socketPath_ + '\n')) {
            HostLog(NOS_LOG_ERROR, "cannot publish service \"%s\": %s", service.c_str(), std::strerror(errno));
            CloseIfIdleLocked();
            return NK_EINVAL;
        }
        ++published_[{dir, service}];
        return NK_EOK;
    }

    Retcode Unpublish(const std::string& dir, const std::string& service)
    {
        std::lock_guard lock(mutex_);
        auto it = published_.find({dir, service});
        if (it == published_.end())
            return NK_ENOENT;
        if (--it->second == 0) {
            ::unlink(ServiceRecordPath(dir, service).c_str());
            published_.erase(it);
            CloseIfIdleLocked();
        }
        return NK_EOK;
    }

    Retcode Listen(uint32_t msecs, char* client, char* service)
    {
        std::lock_guard listenLock(listenMutex_);
        const bool bounded = msecs != UINT32_MAX;
        const auto until = Clock::now() + std::chrono::milliseconds(bounded ? msecs : 0);
        std::vector<pollfd> fds;
        for (;;) {
            int restMs = -1;
            {
                std::lock_guard lock(mutex_);
                TakeIncomingLocked();
                if (!announced_.empty()) {
                    const RequestKey key = std::move(announced_.front());
                    announced_.pop_front();
                    std::memcpy(client, key.first.c_str(), key.first.size() + 1);
                    std::memcpy(service, key.second.c_str(), key.second.size() + 1);
                    return NK_EOK;
                }
                fds.clear();
                if (listener_ && listener_->Ready())
                    fds.push_back({listener_->Fd(), POLLIN, 0});
                else if (listener_)
                    restMs = listener_->PollTimeoutMs();
                for (const auto& [fd, since] : incoming_)
                    fds.push_back({fd, POLLIN, 0});
            }
            // Wake at least once a second: the manager socket may come or go
            // meanwhile; and when it rests after a failed accept, when it
            // may accept again.
            int timeoutMs = restMs >= 0 ? std::min(restMs, 1000) : 1000;
            if (bounded) {
                const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
                if (left <= 0)
                    return NK_CM_TIMEOUT;
                timeoutMs = static_cast<int>(std::min<int64_t>(left, timeoutMs));
            }
            if (::poll(fds.data(), fds.size(), timeoutMs) < 0 && errno != EINTR)
                return NK_EINVAL;
        }
    }

    Retcode Accept(const RequestKey& key, uint32_t riid, Handle listener, Handle* handle)
    {
        std::shared_ptr<ServerChannel> joined;
        if (listener != INVALID_HANDLE) {
            joined = HandleTable::Process().GetAs<ServerChannel>(listener);
            if (!joined)
                return NK_EBADF;  // the request stays pending, to be dropped
        }
        const int fd = TakePending(key);
        if (fd < 0)
            return NK_ENOENT;
        uint8_t payload[4];
        for (int i = 0; i < 4; ++i)
            payload[i] = static_cast<uint8_t>(riid >> (8 * i));
        FrameHeader header;
        header.kind = FrameKind::CmAccept;
        if (SendFrame(fd, header, payload, {}, std::nullopt, true) != IoResult::Ok) {
            ::close(fd);
            return NK_EPIPE;
        }
        if (joined) {
            const Retcode rc = joined->AddConnection(fd);
            if (rc == NK_EOK)
                *handle = listener;
            return rc;
        }
        auto channel = ServerChannel::Create(key.second, CurrentRuntimeDir(), -1, {}, ConnectionLimitOf(key.second));
        if (!channel) {
            ::close(fd);
            return NK_ENOMEM;
        }
        if (const Retcode rc = channel->AddConnection(fd); rc != NK_EOK)
            return rc;
        const Handle made = HandleTable::Process().Add(channel);
        if (made == INVALID_HANDLE) {
            channel->Close();
            return NK_ENOMEM;
        }
        *handle = made;
        return NK_EOK;
    }

    Retcode Drop(const RequestKey& key)
    {
        const int fd = TakePending(key);
        if (fd < 0)
            return NK_ENOENT;
        FrameHeader header;
        header.kind = FrameKind::CmRefuse;
        (void)SendFrame(fd, header, {}, {}, std::nullopt, true);  // a client already gone needs no answer
        ::close(fd);
        return NK_EOK;
    }

private:
    int TakePending(const RequestKey& key)
    {
        std::lock_guard lock(mutex_);
        auto it = pending_.find(key);
        if (it == pending_.end())
            return -1;
        const int fd = it->second;
        pending_.erase(it);
        std::erase(announced_, key);
        return fd;
    }

    // Accepts new connections and reads the CmConnect frames that arrived.
    void TakeIncomingLocked()
    {
        if (listener_) {
            for (int fd; (fd = listener_->Accept()) >= 0;) {
                // As for a channel: a bounded number of requests, and
                // descriptors kept for the process's own work.
                if (incoming_.size() + pending_.size() < kDefaultConnectionLimit && !DescriptorsRunLow(fd)) {
                    incoming_.emplace_back(fd, Clock::now());
                    continue;
                }
                if (refused_.Starts())
                    HostLog(NOS_LOG_WARNING, "connection manager: %zu requests waiting, or few descriptors left: new "
                            "requests are refused", incoming_.size() + pending_.size());
                ::close(fd);
            }
        }
        std::vector<uint8_t> buffer;
        for (auto it = incoming_.begin(); it != incoming_.end();) {
            const int fd = it->first;
            FrameHeader header;
            std::span<const uint8_t> packet;
            const IoResult result = ReadFirstPacket(fd, buffer, packet, header, Clock::now());
            if (result == IoResult::TimedOut && Clock::now() - it->second < kStallLimit) {
                ++it;
                continue;
            }
            std::string_view client;
            std::string_view service;
            const bool valid = result == IoResult::Ok && header.kind == FrameKind::CmConnect &&
                               ParseCmConnectPayload(packet.subspan(kFrameHeaderSize), client, service);
            RequestKey key{std::string(client), std::string(service)};
            if (valid && !pending_.contains(key)) {
                pending_.emplace(key, fd);
                announced_.push_back(std::move(key));
            } else {
                ::close(fd);
            }
            it = incoming_.erase(it);
        }
    }

    // With nothing published, the manager socket goes, and with it every
    // request not yet accepted.
    void CloseIfIdleLocked()
    {
        if (!published_.empty() || !listener_)
            return;
        listener_.reset();
        ::unlink(socketPath_.c_str());
        socketPath_.clear();
        for (const auto& [fd, since] : incoming_)
            ::close(fd);
        incoming_.clear();
        for (const auto& [key, fd] : pending_)
            ::close(fd);
        pending_.clear();
        announced_.clear();
    }

    std::mutex listenMutex_;  // one KnCmListen at a time
    std::mutex mutex_;        // guards everything below
    std::unique_ptr<Listener> listener_;
    std::string socketPath_;
    Burst refused_;  // requests that found too many waiting
    std::map<std::pair<std::string, std::string>, int> published_;  // (dir, service) -> times published
    std::vector<std::pair<int, Clock::time_point>> incoming_;        // connected, request not yet read
    std::map<RequestKey, int> pending_;                               // read, not yet accepted or dropped
    std::deque<RequestKey> announced_;                                // pending, not yet listened
};

bool IsValidCmName(const char* name)
{
    return name != nullptr && std::strlen(name) < KN_CM_NAME_MAX && IsValidName(name);
}

std::string ClientName()
{
    static std::atomic<uint32_t> counter{0};
    return std::string(getprogname()) + '.' + std::to_string(::getpid()) + '.' + std::to_string(++counter);
}

}  // namespace

extern "C" Retcode NsCreate(const char* /*name*/, int32_t /*msecs*/, Handle* ns)
{
    if (ns == nullptr)
        return NK_EINVAL;
    std::string dir = CurrentRuntimeDir();
    if (dir.empty())
        return NK_ENOENT;
    const Handle handle = HandleTable::Process().Add(std::make_shared<NameServer>(std::move(dir)));
    if (handle == INVALID_HANDLE)
        return NK_ENOMEM;
    *ns = handle;
    return NK_EOK;
}

namespace {

Retcode CheckPublication(Handle ns, const char* type, const char* server, const char* service,
                         std::shared_ptr<NameServer>& out)
{
    out = HandleTable::Process().GetAs<NameServer>(ns);
    if (!out)
        return NK_EBADF;
    if (type == nullptr || std::strlen(type) >= KN_CM_NAME_MAX || !IsValidEndpointName(type) ||
        !IsValidCmName(service) || (server != nullptr && std::strcmp(server, getprogname()) != 0))
        return NK_EINVAL;
    return NK_EOK;
}

}  // namespace

extern "C" Retcode NsPublishService(Handle ns, const char* type, const char* server, const char* service)
{
    std::shared_ptr<NameServer> nameServer;
    const Retcode rc = CheckPublication(ns, type, server, service, nameServer);
    return rc != NK_EOK ? rc : ConnectionManager::Process().Publish(nameServer->Dir(), type, service);
}

extern "C" Retcode NsUnPublishService(Handle ns, const char* type, const char* server, const char* service)
{
    std::shared_ptr<NameServer> nameServer;
    const Retcode rc = CheckPublication(ns, type, server, service, nameServer);
    return rc != NK_EOK ? rc : ConnectionManager::Process().Unpublish(nameServer->Dir(), service);
}

extern "C" Retcode KnCmListen(const char* /*filter*/, uint32_t msecs, char* client, char* service)
{
    if (client == nullptr || service == nullptr)
        return NK_EINVAL;
    return ConnectionManager::Process().Listen(msecs, client, service);
}

extern "C" Retcode KnCmAccept(const char* client, const char* service, uint32_t riid, Handle listener, Handle* handle)
{
    if (client == nullptr || service == nullptr || handle == nullptr || riid >= INVALID_RIID)
        return NK_EINVAL;
    return ConnectionManager::Process().Accept({client, service}, riid, listener, handle);
}

extern "C" Retcode KnCmDrop(const char* client, const char* service)
{
    if (client == nullptr || service == nullptr)
        return NK_EINVAL;
    return ConnectionManager::Process().Drop({client, service});
}

extern "C" Retcode KnCmConnect(const char* service, uint32_t msecs, Handle* handle, uint32_t* riid)
{
    if (!IsValidCmName(service) || handle == nullptr || riid == nullptr)
        return NK_EINVAL;
    const std::string dir = CurrentRuntimeDir();
    if (dir.empty())
        return NK_ENOENT;
    const auto record = ReadSmallFile(ServiceRecordPath(dir, service), 2 * 4096);
    if (!record)
        return NK_ENOENT;
    // "<type>\n<manager socket path>\n"
    const size_t firstEol = record->find('\n');
    const size_t secondEol = firstEol == std::string::npos ? firstEol : record->find('\n', firstEol + 1);
    if (secondEol == std::string::npos)
        return NK_ENOENT;
    const int fd = ConnectSeqpacket(record->substr(firstEol + 1, secondEol - firstEol - 1));
    if (fd < 0)
        return NK_ENOENT;  // the publisher is gone

    const std::string client = ClientName();
    std::string payload = client + '\0' + service + '\0';
    const Deadline deadline = msecs == UINT32_MAX ? Deadline{} : Clock::now() + std::chrono::milliseconds(msecs);
    FrameHeader header;
    header.kind = FrameKind::CmConnect;
    std::vector<uint8_t> buffer;
    std::span<const uint8_t> packet;
    IoResult result = SendFrame(fd, header, {reinterpret_cast<const uint8_t*>(payload.data()), payload.size()}, {},
                                deadline, false);
    FrameHeader answer;
    if (result == IoResult::Ok)
        result = ReadFirstPacket(fd, buffer, packet, answer, deadline);
    Retcode rc = NK_EOK;
    uint32_t chosen = 0;
    if (result == IoResult::TimedOut)
        rc = NK_ETIMEDOUT;
    else if (result == IoResult::Malformed)
        rc = NK_EPROTO;
    else if (result != IoResult::Ok)
        rc = NK_EPIPE;
    else if (answer.kind == FrameKind::CmRefuse)
        rc = NK_ECONNREFUSED;
    else if (answer.kind != FrameKind::CmAccept)
        rc = NK_EPROTO;
    else {
        const uint8_t* p = packet.data() + kFrameHeaderSize;
        chosen = uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
        if (chosen >= INVALID_RIID)
            rc = NK_EPROTO;
    }
    if (rc != NK_EOK) {
        ::close(fd);
        return rc;
    }
    auto connection = std::make_shared<ClientConnection>(fd, service, dir, CallTimeoutFromEnvironment(), chosen);
    const Handle made = HandleTable::Process().Add(std::move(connection));
    if (made == INVALID_HANDLE)
        return NK_ENOMEM;
    *handle = made;
    *riid = chosen;
    return NK_EOK;
}
