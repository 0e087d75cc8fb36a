// The request loop allocates nothing once its buffers exist: counted by
// replacing the global allocation functions of this test program.
#include "echo_component.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"

#include <nos/transport.h>

#include <cstdlib>
#include <new>

namespace {
thread_local bool t_counting = false;
thread_local std::size_t t_allocations = 0;
}  // namespace

// The other allocation and deallocation functions end in these two.
void* operator new(std::size_t size)
{
    t_allocations += t_counting ? 1 : 0;
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}
// Not inlined: the compiler would take free() for a mismatch of new.
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace ipc_test {
namespace {

constexpr int kExchanges = 1000;

// Counts allocations on the IPC thread from the first receive to the last.
struct CountingTransport {
    static Retcode Receive(NkNosTransport*, nk_message* request, nk_arena*)
    {
        ++s_receives;
        if (s_receives == 1) {
            t_counting = true;
        } else if (s_receives > kExchanges) {
            t_counting = false;
            s_counted = t_allocations;
            return NK_EPIPE;
        }
        reinterpret_cast<EchoRequest*>(request)->value = static_cast<std::uint32_t>(s_receives);
        return s_receives % 3 == 0 ? NK_EAGAIN : NK_EOK;  // ignored codes are part of the loop too
    }
    static Retcode Reply(NkNosTransport*, const nk_message*, const nk_arena*) { return NK_EOK; }

    static inline int s_receives = 0;
    static inline std::size_t s_counted = 0;
};

class NoAllocationTest : public test_support::RuntimeDirTest {};

TEST_F(NoAllocationTest, IpcThread_RequestLoopAllocatesNothing)
{
    static constexpr NkNosTransportOps ops = {nullptr, CountingTransport::Receive, CountingTransport::Reply};
    test_support::LogCapture log;
    EchoEntity entity;
    nos::ipc::ServerContext context;
    context.logger = log.ServerLogger();
    context.serviceName = "counted";
    context.ignoredErrors = {NK_EAGAIN, NK_ETIMEDOUT, NK_EPROTO};
    EchoServer server(&entity, EchoDispatch, context, &ops);
    server.StartThreads();
    server.JoinThreads();

    EXPECT_EQ(CountingTransport::s_receives, kExchanges + 1);
    EXPECT_EQ(entity.dispatched, kExchanges - kExchanges / 3);
    EXPECT_EQ(CountingTransport::s_counted, 0u);
}

}  // namespace
}  // namespace ipc_test
