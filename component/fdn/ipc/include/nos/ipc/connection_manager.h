// Serves the connections that clients ask for at run time: one worker thread
// listens for connection requests to the services this process published,
// accepts each on the interface its user plan names, and hands the channel
// handle to the server threads of the request's group.
#pragma once

#include <nos/rtl/semaphore.h>
#include <nos/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace nos::ipc {

class ConnectionManager {
public:
    static constexpr std::uint32_t kInvalidRiid = 65535;
    static constexpr std::uint32_t kInvalidGroupId = 0xFFFFFFFF;
    // What Add returns when it refuses a block.
    static constexpr std::uint32_t kAddFailed = 0xFFFFFFFF;

    // Returns false to refuse the connection. `value` starts as the group's
    // setting and is the callback's to change.
    using AcceptCallback = std::function<bool(const char* client, const char* service, unsigned riid,
                                              unsigned groupId, unsigned& value)>;
    // Told of every decision on a request; `handle` is INVALID_HANDLE when
    // the request was not accepted.
    using NotifyCallback = std::function<void(const char* client, const char* service, unsigned riid,
                                              unsigned groupId, unsigned handle, bool accepted)>;
    using LogCallback = std::function<void(std::string_view message, bool isError)>;

    // One user-plan entry.
    struct Parameters {
        std::uint32_t riid = kInvalidRiid;         // interface the connection is accepted on; Add refuses kInvalidRiid
        std::uint32_t groupId = kInvalidGroupId;   // group whose threads serve it
    };

    // Callbacks of one configuration block; empty ones fall back to the
    // manager's.
    struct CbkSet {
        AcceptCallback accept;
        NotifyCallback notify;
        LogCallback log;
    };

    // One configuration block.
    struct Cfg {
        std::map<std::string_view, Parameters> userPlan;   // service endpoint name -> parameters
        std::map<std::uint32_t, std::uint32_t> userGroups;  // group id -> the group's setting
        std::shared_ptr<const CbkSet> callbacks;
    };

    struct Config {
        AcceptCallback accept;  // default: accept everything
        NotifyCallback notify;  // default: nothing
        LogCallback log;        // default: nothing
        Cfg cfg;
        // Passed to KnCmListen; also bounds how long the destructor waits
        // for the worker.
        std::uint32_t listenTimeout = 100;
        // Kept as given; nothing depends on it yet.
        bool reservedFlag = false;
        // The constructor calls Start().
        bool autoStart = false;
    };

    // Run-time state of one group.
    struct Group {
        Handle handle = INVALID_HANDLE;   // channel of the group's connections, once one is accepted
        std::uint32_t acceptedCount = 0;  // connections accepted into it
        std::vector<std::weak_ptr<rtl::Semaphore>> waiters;
        bool taken = false;               // a server thread serves `handle`
    };

    // The semaphores to post for a group once its handle is known.
    class GrpSync {
    public:
        explicit GrpSync(std::vector<std::weak_ptr<rtl::Semaphore>> semaphores) noexcept
            : m_semaphores(std::move(semaphores))
        {
        }
        // Posts each semaphore that still exists once.
        void Release(ConnectionManager* manager) noexcept;

    private:
        std::vector<std::weak_ptr<rtl::Semaphore>> m_semaphores;
    };

    // Pause before the next listen cycle, thrown inside a cycle.
    struct Delay {
        std::uint32_t pause = 0;
    };

    // Throws std::runtime_error "ConnectionManager: invalid configuration"
    // when Add refuses `config.cfg`.
    explicit ConnectionManager(Config config);
    // Stops and joins the worker, wakes every waiting server thread and
    // closes the handles that no server thread took.
    ~ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;

    // Validates and merges one block; kAddFailed (the manager unchanged, the
    // reason logged) or the offset added to the block's group ids. With
    // `absoluteGroupIds` false the block's ids are shifted past the largest
    // group id already known. With `replace` a block may redefine services
    // and groups.
    std::uint32_t Add(const Cfg& cfg, bool absoluteGroupIds, bool replace);
    // Starts the worker; false when it already runs or cannot be started.
    bool Start();
    // "ConnectionManager: <message>" to the log callback; never throws.
    void Log(std::string_view message, bool isError) noexcept;

    // For a server thread that wants the channel of `groupId`: the handle
    // once one was accepted (the group counts as taken from then on);
    // INVALID_HANDLE when the manager does not run or has no such group;
    // otherwise no value, with `waiter` registered to be posted when the
    // group gets its handle or the manager is destroyed; call again then.
    // The manager must outlive the calls; a waiter woken by the destructor
    // must not call again.
    std::optional<Handle> TakeGroupHandle(std::uint32_t groupId, const std::shared_ptr<rtl::Semaphore>& waiter);

    bool ReservedFlag() const noexcept { return m_reservedFlag; }

private:
    struct PlanEntry {
        Parameters parameters;
        std::shared_ptr<const CbkSet> callbacks;
    };
    struct WorkContext;

    // Under m_mutex: the reason Add refuses the block, or null.
    const char* CheckBlockLocked(const Cfg& cfg, bool absoluteGroupIds, bool replace, std::uint32_t& offset) const;
    void Worker() noexcept;
    void ListenCycle(WorkContext& work);

    AcceptCallback m_accept;
    NotifyCallback m_notify;
    LogCallback m_log;
    std::uint32_t m_listenTimeout;
    bool m_reservedFlag;

    mutable std::mutex m_mutex;  // guards everything below
    std::condition_variable m_groupsChanged;
    std::map<std::string, PlanEntry, std::less<>> m_plan;
    std::map<std::uint32_t, std::uint32_t> m_userGroups;
    std::map<std::uint32_t, Group> m_groups;
    bool m_running = false;
    std::thread m_worker;

    std::atomic<bool> m_stop{false};  // read by the worker between kernel calls
};

}  // namespace nos::ipc
