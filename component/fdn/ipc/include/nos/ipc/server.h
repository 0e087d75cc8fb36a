// The request loop of a component: obtains its IPC channel, runs its IPC
// threads, and in each hands every request to the component's generated
// dispatch function and sends the response.
//
//   nos::ipc::ServerContext context;
//   context.logger = ...;
//   context.serviceName = "verifier";
//   nos::ipc::Server<Component, ComponentReq, 0, ComponentRes, 0> server(&component, Dispatch, context);
//   server.StartThreads();
//   server.JoinThreads();
//
// Every failed check throws nos::rtl::Exception with the code 0x9000000D; a
// constructor that throws leaves nothing registered.
#pragma once

#include <nos/ipc/server_support.h>
#include <nos/kernel.h>
#include <nos/message.h>
#include <nos/transport.h>
#include <nos/types.h>
#include <nos/rtl/exception.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace nos::ipc {

// What the owner passes to the server; copied.
struct ServerContext {
    ServerLogger logger;
    // IPC threads on the channel from the service locator.
    std::uint64_t staticThreadsCount = 1;
    // Connection name given to the service locator in static mode.
    std::string serviceName;
    // IPC threads on connections accepted in dynamic mode.
    std::uint64_t dynamicThreadsCount = 0;
    // Services to publish; empty selects static mode.
    std::vector<DynamicIpcDescriptor> descriptors;
    // StartThreads starts no static thread.
    bool skipStaticThreads = false;
    // Transport codes after which an IPC thread goes on instead of ending.
    std::set<std::int32_t> ignoredErrors{NK_EAGAIN};
};

template <typename Entity, typename Req, std::size_t ReqArenaSize, typename Res, std::size_t ResArenaSize>
class Server {
    static_assert(std::is_trivially_copyable_v<Req> && std::is_trivially_copyable_v<Res>,
                  "messages are plain structures");
    static_assert(sizeof(Req) >= sizeof(nk_message) && sizeof(Res) >= sizeof(nk_message),
                  "every message begins with nk_message");
    static_assert(sizeof(Req) <= NK_MSG_SIZE_MASK, "the request size fits the size word");

public:
    using DispatchFn = int (*)(Entity* entity, const nk_message* request, const nk_arena* requestArena,
                               nk_message* response, nk_arena* responseArena);

    // Registers the channel (static mode) or publishes the descriptors
    // (dynamic mode). The IPC threads receive and reply through
    // `transportOps`, by default the operations of the platform's transport.
    Server(Entity* entity, DispatchFn dispatch, const ServerContext& context,
           const NkNosTransportOps* transportOps = nullptr)
        : m_entity(entity), m_entityDispatchFn(dispatch), m_logger(context.logger),
          m_staticThreadsCount(context.staticThreadsCount), m_dynamicThreadsCount(context.dynamicThreadsCount),
          m_skipStaticThreads(context.skipStaticThreads), m_ignoredErrors(context.ignoredErrors),
          m_transportOps(transportOps)
    {
        details::Check(m_entity != nullptr, "m_entity", "Server", 68);
        details::Check(m_entityDispatchFn != nullptr, "m_entityDispatchFn", "Server", 69);
        m_serviceRiids.max_load_factor(1.0f);
        if (context.descriptors.empty())
            InitStatic(context.serviceName);
        else
            InitDynamic(context.descriptors);
    }

    // Waits for every IPC thread, then releases the synchronisation object,
    // the publication, the connection manager and the static channel, in
    // that order. The threads end only when their channel fails or, after
    // RequestStop, when their current receive returns.
    ~Server()
    {
        JoinThreads();
        const Handle sync = m_syncHandle.exchange(INVALID_HANDLE);
        if (sync != INVALID_HANDLE)
            (void)KnHandleClose(sync);
        m_publication.reset();
        m_connectionManager.reset();
        m_serviceRiids.clear();
        m_ignoredErrors.clear();
        m_logger = nullptr;
        m_autoService.reset();
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Starts the IPC threads. Static threads start at once; each dynamic
    // thread starts once the connection manager has accepted a connection
    // for it, so in dynamic mode this waits for the first client. Call once.
    void StartThreads()
    {
        if (m_staticThreadsCount != 0 && !m_skipStaticThreads) {
            m_threads.reserve(m_staticThreadsCount + m_dynamicThreadsCount);
            // In dynamic mode there is no static channel: such a thread logs
            // its failed check and ends.
            const Handle handle = m_autoService ? m_autoService->GetHandle() : INVALID_HANDLE;
            for (std::uint64_t i = 0; i < m_staticThreadsCount; ++i)
                m_threads.emplace_back(&Server::IpcThread, this, handle);
        }
        for (std::uint64_t i = 0; i < m_dynamicThreadsCount; ++i) {
            const Handle handle = m_connectionManager
                                      ? details::AcquireGroupHandle(*m_connectionManager, details::kDynamicGroupId)
                                      : INVALID_HANDLE;
            m_threads.emplace_back(&Server::IpcThread, this, handle);
        }
    }

    // Waits for every started thread to end.
    void JoinThreads() noexcept
    {
        for (auto& thread : m_threads) {
            if (!thread.joinable())
                continue;
            try {
                thread.join();
            } catch (const std::exception& e) {
                details::LogLine(m_logger, true, "Exception {} in function {}", e.what(), "JoinThreads");
            }
        }
    }

    // Asks the IPC threads to end: each ends, with "IPC server has stopped",
    // once its current receive (and the exchange it starts) is over.
    void RequestStop() noexcept { m_stop.store(true); }

private:
    // One thread's buffers, allocated and zeroed once and reused for every
    // exchange.
    struct Exchange {
        Req request;
        Res response;
        alignas(std::max_align_t) std::array<std::uint8_t, ReqArenaSize> requestArenaBuffer;
        alignas(std::max_align_t) std::array<std::uint8_t, ResArenaSize> responseArenaBuffer;
        nk_arena requestArena;
        nk_arena responseArena;
    };

    void InitStatic(const std::string& serviceName)
    {
        auto record = std::make_unique<details::AutoService>(serviceName);
        m_autoService = std::move(record);
        details::Check(m_autoService && (m_autoService->GetHandle() != INVALID_HANDLE),
                       "m_autoService && (m_autoService->GetHandle() != (0xffffffffU))", "InitStatic", 130);
    }

    void InitDynamic(const std::vector<DynamicIpcDescriptor>& descriptors)
    {
        details::Check(!descriptors.empty(), "!descriptors.empty()", "InitDynamic", 139);
        m_publication = std::make_unique<details::Publication>(descriptors, m_logger);
        for (const auto& descriptor : descriptors) {
            details::LogLine(m_logger, false, "Registered NameServer service {}, type {}", descriptor.service,
                             descriptor.type);
            m_serviceRiids.try_emplace(descriptor.service, descriptor.riid);  // a repeated service keeps its first riid
        }
        details::Check(m_staticThreadsCount == m_dynamicThreadsCount, "m_staticThreadsCount == m_dynamicThreadsCount",
                       "InitDynamic", 166);
        try {
            m_connectionManager = details::MakeConnectionManager(m_serviceRiids, m_logger);
        } catch (const std::exception& e) {
            details::LogLine(m_logger, true, "Exception {} in function {}", e.what(), "InitDynamic");
        }
        details::Check(m_connectionManager && m_connectionManager->Start(),
                       "m_connectionManager && m_connectionManager->Start()", "InitDynamic", 173);
    }

    void IpcThread(Handle handle) noexcept
    {
        try {
            details::Check(handle != INVALID_HANDLE, "handle != (0xffffffffU)", "IpcThread", 223);
            // Every thread writes the one field: with several threads the
            // last handle made is the one the destructor closes.
            Handle sync = m_syncHandle.load();
            (void)KnIpcCreateSyncObject(&sync);
            m_syncHandle.store(sync);
            NkNosTransport transport{};
            Retcode rc = NkNosTransportSync_Init(&transport, handle, INVALID_HANDLE, sync);
            if (rc != NK_EOK) {
                details::LogLine(m_logger, true, "IpcThread with handle={} stopped with error code {}", handle, rc);
                return;
            }
            if (m_transportOps != nullptr)
                transport.ops = m_transportOps;
            details::LogLine(m_logger, false, "NkNosTransport initialized with handle {}", handle);

            const auto exchange = std::make_unique<Exchange>();
            auto* request = reinterpret_cast<nk_message*>(&exchange->request);
            auto* response = reinterpret_cast<nk_message*>(&exchange->response);
            for (;;) {
                nk_msg_set_size(request, static_cast<std::uint32_t>(sizeof(Req)));
                nk_arena_init(&exchange->requestArena, exchange->requestArenaBuffer.data(), ReqArenaSize);
                nk_arena_init(&exchange->responseArena, exchange->responseArenaBuffer.data(), ResArenaSize);
                rc = transport.ops->recv(&transport, request, &exchange->requestArena);
                if (rc == NK_EOK) {
                    // The dispatch encodes its own failures into the response.
                    (void)m_entityDispatchFn(m_entity, request, &exchange->requestArena, response,
                                             &exchange->responseArena);
                    rc = transport.ops->reply(&transport, response, &exchange->responseArena);
                }
                if (m_stop.load())
                    break;
                if (rc != NK_EOK && !m_ignoredErrors.contains(rc)) {
                    details::LogLine(m_logger, true, "IpcThread with handle={} stopped with error code {}", handle,
                                     rc);
                    return;
                }
            }
            details::LogLine(m_logger, false, "IPC server has stopped");
        } catch (const rtl::Exception& e) {
            details::LogLine(m_logger, true, "Exception {} in function {}", e.what(),
                             e.GetLocation().function_name());
        } catch (const std::exception& e) {
            details::LogLine(m_logger, true, "Exception {} in function {}", e.what(), "IpcThread");
        } catch (...) {
            // Nothing is known of the object; the line is all there is to keep.
            details::LogLine(m_logger, true, "Unknown exception in function {}", "IpcThread");
        }
    }

    Entity* m_entity;
    DispatchFn m_entityDispatchFn;
    ServerLogger m_logger;
    std::uint64_t m_staticThreadsCount;
    std::uint64_t m_dynamicThreadsCount;
    bool m_skipStaticThreads;
    std::set<std::int32_t> m_ignoredErrors;
    std::atomic<bool> m_stop{false};
    std::atomic<Handle> m_syncHandle{INVALID_HANDLE};
    std::unordered_map<std::string, std::uint32_t> m_serviceRiids;  // dynamic mode: service -> riid
    std::vector<std::thread> m_threads;
    std::unique_ptr<details::AutoService> m_autoService;          // static mode
    std::unique_ptr<ConnectionManager> m_connectionManager;       // dynamic mode
    std::unique_ptr<details::Publication> m_publication;          // dynamic mode
    const NkNosTransportOps* const m_transportOps;                // null: the platform's
};

}  // namespace nos::ipc
