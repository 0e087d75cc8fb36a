#include "nos/ipc/connection_manager.h"

#include "nos/ipc/server_support.h"

#include <nos/kernel.h>

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace nos::ipc {
namespace {

// Pause after a request for a service that is not in the plan.
constexpr std::uint32_t kUnknownServicePause = 400;

template <typename... Args>
void LogTo(const ConnectionManager::LogCallback& log, bool isError, fmt::format_string<Args...> format,
           Args&&... args) noexcept
{
    if (!log)
        return;
    try {
        log(fmt::format("ConnectionManager: {}", fmt::format(format, std::forward<Args>(args)...)), isError);
    } catch (const std::exception& e) {
        details::ReportLogFailure(e.what());
    }
}

// The block's own callback when it has one, else the manager's.
template <typename Callback>
const Callback& Pick(const std::shared_ptr<const ConnectionManager::CbkSet>& block,
                     Callback ConnectionManager::CbkSet::*member, const Callback& fallback)
{
    return block && (*block).*member ? (*block).*member : fallback;
}

}  // namespace

// The worker's record of one connection request. A request that was
// received but neither accepted nor dropped is dropped when it goes.
struct ConnectionManager::WorkContext {
    explicit WorkContext(ConnectionManager& owner) noexcept : manager(owner) {}
    ~WorkContext()
    {
        if (!pending)
            return;
        try {
            (void)Drop();
        } catch (const std::exception& e) {
            LogTo(manager.m_log, true, "~WorkContext() exception: {}", e.what());
        }
    }
    WorkContext(const WorkContext&) = delete;
    WorkContext& operator=(const WorkContext&) = delete;

    Retcode Drop()
    {
        pending = false;
        return KnCmDrop(client, service);
    }

    ConnectionManager& manager;
    char client[KN_CM_NAME_MAX] = {};
    char service[KN_CM_NAME_MAX] = {};
    std::uint32_t riid = kInvalidRiid;
    std::uint32_t groupId = kInvalidGroupId;
    Handle listener = INVALID_HANDLE;
    Handle handle = INVALID_HANDLE;
    Retcode result = static_cast<Retcode>(0x9000000Du);
    bool pending = false;
};

void ConnectionManager::GrpSync::Release(ConnectionManager* manager) noexcept
{
    for (const auto& weak : m_semaphores) {
        const auto semaphore = weak.lock();
        if (!semaphore)
            continue;  // its thread went away
        try {
            semaphore->Post();
        } catch (const std::exception&) {
            if (manager != nullptr)
                manager->Log("GrpSync: Semaphore::Post() exception", true);
        }
    }
}

ConnectionManager::ConnectionManager(Config config)
    : m_accept([](const char*, const char*, unsigned, unsigned, unsigned&) { return true; }),
      m_notify([](const char*, const char*, unsigned, unsigned, unsigned, bool) {}),
      m_log([](std::string_view, bool) {}), m_listenTimeout(config.listenTimeout),
      m_reservedFlag(config.reservedFlag)
{
    if (config.accept)
        m_accept = std::move(config.accept);
    if (config.notify)
        m_notify = std::move(config.notify);
    if (config.log)
        m_log = std::move(config.log);
    if (Add(config.cfg, true, false) == kAddFailed)
        throw std::runtime_error("ConnectionManager: invalid configuration");
    if (config.autoStart)
        (void)Start();
}

ConnectionManager::~ConnectionManager()
{
    std::thread worker;
    {
        std::lock_guard lock(m_mutex);
        if (m_running) {
            // The mutex orders the running flag; the stop flag, read by the
            // worker without it, is a sequentially consistent store.
            m_running = false;
            m_stop.store(true, std::memory_order_seq_cst);
            worker = std::move(m_worker);
        }
    }
    // Joined without the mutex: the worker takes it to hand out an accepted
    // handle. It sees the stop flag within one listen time-out (or pause).
    if (worker.joinable())
        worker.join();

    std::vector<GrpSync> releases;
    std::vector<Handle> untaken;
    {
        std::lock_guard lock(m_mutex);
        for (auto& [id, group] : m_groups) {
            releases.emplace_back(std::exchange(group.waiters, {}));
            if (group.handle != INVALID_HANDLE && !group.taken)
                untaken.push_back(group.handle);
            group.handle = INVALID_HANDLE;
        }
    }
    for (auto& release : releases)
        release.Release(this);
    m_groupsChanged.notify_all();
    for (const Handle handle : untaken)
        (void)KnHandleClose(handle);
}

const char* ConnectionManager::CheckBlockLocked(const Cfg& cfg, bool absoluteGroupIds, bool replace,
                                                std::uint32_t& offset) const
{
    for (const auto& [id, value] : cfg.userGroups) {
        if (id == 0 || id == kInvalidGroupId)
            return "user groups contain invalid group id";
    }
    std::uint32_t largest = cfg.userGroups.empty() ? 0 : cfg.userGroups.rbegin()->first;
    for (const auto& [service, parameters] : cfg.userPlan) {
        // Only the one invalid value is refused here. A riid above it is
        // planned, and refused by KnCmAccept when a client asks for it: no
        // 16-bit interface index can carry it.
        if (parameters.riid == kInvalidRiid || parameters.groupId == kInvalidGroupId)
            return "user plan contains invalid riid or group id";
        largest = std::max(largest, parameters.groupId);
    }
    offset = 0;
    if (!absoluteGroupIds && !m_groups.empty()) {
        offset = m_groups.rbegin()->first;
        if (std::uint64_t{offset} + largest >= kInvalidGroupId)
            return "user plan group id overflow";
    }
    if (!replace) {
        for (const auto& [service, parameters] : cfg.userPlan) {
            if (m_plan.contains(service))
                return "user plan redefinition";
        }
        for (const auto& [id, value] : cfg.userGroups) {
            if (m_userGroups.contains(id + offset))
                return "user groups redefinition";
        }
    }
    return nullptr;
}

std::uint32_t ConnectionManager::Add(const Cfg& cfg, bool absoluteGroupIds, bool replace)
{
    const char* failure = nullptr;
    std::uint32_t offset = 0;
    {
        std::lock_guard lock(m_mutex);
        failure = CheckBlockLocked(cfg, absoluteGroupIds, replace, offset);
        if (failure == nullptr) {
            for (const auto& [service, parameters] : cfg.userPlan) {
                const std::uint32_t groupId = parameters.groupId + offset;
                m_plan.insert_or_assign(std::string(service), PlanEntry{{parameters.riid, groupId}, cfg.callbacks});
                m_groups.try_emplace(groupId);
            }
            for (const auto& [id, value] : cfg.userGroups) {
                m_userGroups.insert_or_assign(id + offset, value);
                m_groups.try_emplace(id + offset);
            }
        }
    }
    if (failure != nullptr) {
        Log(failure, true);
        return kAddFailed;
    }
    return offset;
}

bool ConnectionManager::Start()
{
    std::string failure;
    {
        std::lock_guard lock(m_mutex);
        if (m_running)
            return false;
        m_stop.store(false);
        try {
            m_worker = std::thread(&ConnectionManager::Worker, this);
            m_running = true;
            return true;
        } catch (const std::system_error& e) {
            failure = e.what();
        }
    }
    LogTo(m_log, true, "worker not started: {}", failure);
    return false;
}

void ConnectionManager::Log(std::string_view message, bool isError) noexcept { LogTo(m_log, isError, "{}", message); }

std::optional<Handle> ConnectionManager::TakeGroupHandle(std::uint32_t groupId,
                                                          const std::shared_ptr<rtl::Semaphore>& waiter)
{
    std::lock_guard lock(m_mutex);
    const auto found = m_groups.find(groupId);
    if (!m_running || found == m_groups.end())
        return INVALID_HANDLE;
    Group& group = found->second;
    if (group.handle != INVALID_HANDLE) {
        group.taken = true;
        return group.handle;
    }
    if (!waiter)
        return INVALID_HANDLE;
    group.waiters.push_back(waiter);
    return std::nullopt;
}

void ConnectionManager::Worker() noexcept
{
    Log("worker start", false);
    while (!m_stop.load()) {
        std::uint32_t pause = 0;
        try {
            WorkContext work(*this);
            ListenCycle(work);
        } catch (const Delay& delay) {
            pause = delay.pause;
        } catch (const std::exception& e) {
            // A callback failed; the request went with its WorkContext.
            LogTo(m_log, true, "worker cycle exception: {}", e.what());
        }
        if (pause != 0)
            (void)KnSleep(pause);
    }
    Log("worker stop", false);
}

void ConnectionManager::ListenCycle(WorkContext& work)
{
    Retcode rc = NK_EOK;
    while ((rc = KnCmListen(nullptr, m_listenTimeout, work.client, work.service)) == NK_CM_TIMEOUT) {
        if (m_stop.load())
            return;
    }
    if (rc != NK_EOK) {
        LogTo(m_log, true, "{}:{}: KnCmListen() = {}", work.client, work.service, rc);
        return;
    }
    work.pending = true;
    if (work.client[0] == '\0' || work.service[0] == '\0') {
        const Retcode dropped = work.Drop();
        LogTo(m_log, true, "{}:{}: KnCmListen(): empty client/service ({})", work.client, work.service, dropped);
        return;
    }

    PlanEntry entry;
    unsigned value = 0;
    bool planned = false;
    {
        std::lock_guard lock(m_mutex);
        const auto found = m_plan.find(std::string_view(work.service));
        planned = found != m_plan.end();
        if (planned) {
            entry = found->second;
            work.riid = entry.parameters.riid;
            work.groupId = entry.parameters.groupId;
            work.listener = m_groups[work.groupId].handle;
            if (const auto setting = m_userGroups.find(work.groupId); setting != m_userGroups.end())
                value = setting->second;
        }
    }
    if (!planned) {
        // The request is dropped with `work`, before the pause.
        LogTo(m_log, true, "{}.{}: not found in user plan", work.client, work.service);
        throw Delay{kUnknownServicePause};
    }

    const auto& log = Pick(entry.callbacks, &CbkSet::log, m_log);
    const auto& notify = Pick(entry.callbacks, &CbkSet::notify, m_notify);
    if (!Pick(entry.callbacks, &CbkSet::accept, m_accept)(work.client, work.service, work.riid, work.groupId, value)) {
        const Retcode dropped = work.Drop();
        LogTo(log, true, "{}:{} [{}] #{}: not accepted by user (KnCmDrop={})", work.client, work.service, work.riid,
              work.groupId, dropped);
        notify(work.client, work.service, work.riid, work.groupId, INVALID_HANDLE, false);
        return;
    }
    work.handle = INVALID_HANDLE;
    rc = KnCmAccept(work.client, work.service, work.riid, work.listener, &work.handle);
    if (rc != NK_EOK) {
        const Retcode dropped = work.Drop();
        LogTo(log, true, "{}:{} [{}] #{}: not accepted: KnCmAccept() = {} (KnCmDrop()={})", work.client,
              work.service, work.riid, work.groupId, rc, dropped);
        notify(work.client, work.service, work.riid, work.groupId, INVALID_HANDLE, false);
        return;
    }
    work.pending = false;
    work.result = NK_EOK;

    std::vector<std::weak_ptr<rtl::Semaphore>> waiters;
    {
        std::lock_guard lock(m_mutex);
        Group& group = m_groups[work.groupId];
        group.handle = work.handle;
        ++group.acceptedCount;
        waiters.swap(group.waiters);
    }
    GrpSync(std::move(waiters)).Release(this);
    m_groupsChanged.notify_all();
    notify(work.client, work.service, work.riid, work.groupId, work.handle, true);
}

}  // namespace nos::ipc
