// The Verifier entity: builds its objects once, hands them to the component
// IPC server on the channel "verifier" (endpoint 0 the product update
// archive, endpoint 1 the application list) and serves until the server's
// IPC thread ends. There are no options and no configuration; on the host
// only the platform's NOS_RUNTIME_DIR applies.
//
// Exit status: 0 the server threads ended (on the host also after SIGTERM or
// SIGINT); 1 start-up or serving failed.

#include <memory>
#include <string_view>

#include <nos/types.h>
#include <nos/ipc/server.h>
#include <signature_verifier/update_verifier.h>

#include "common/utils/manage_exception.h"
#include "nos/logger/nos_logger.h"
#include "refused_request.h"
#include "shared_log_function_for_entity/entity_logger.h"
#include "signal_stop.h"
#include "update/registry/ipc/proxy.h"
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"
#include "verifier_api/component.h"
#include "verifier_api/stub_factory.h"

namespace {

using nos::logger::LogIfEnabled;
using nos::logger::LogLevel;

using VerifierServer =
    nos::ipc::Server<nv_Verifier_component, nv_Verifier_component_req, 0, nv_Verifier_component_res, 0>;

// The source locations of the start line.
constexpr const char* kFile = "entities/updater_pdk/verifier/src/main";
constexpr int kStartedLine = 48;
constexpr int kFailedLine = 57;

constexpr std::string_view kStartedOk = "Entity started [\x1b[92mOK\x1b[0m]";
constexpr std::string_view kStartedFailed = "Entity started [\x1b[91mFAILED\x1b[0m]";
static_assert(kStartedOk.size() == 28 && kStartedFailed.size() == 32);

constexpr std::string_view kRegistryConnection = "update_registry";
constexpr std::string_view kRegistryEndpoint = "UpdateRegistry.UpdateRegistry";
constexpr const char* kChannel = "verifier";

}  // namespace

int main()
{
    // Before the logger starts its flush thread, so that every thread
    // inherits the blocked stop signals.
    update::verifier::entity::SignalStop signalStop;
    try {
        nos::logger::NOSLogger::Setup(LogLevel::Debug, nullptr);

        // Declared in creation order: they are destroyed in reverse, the
        // server first and the registry client last.
        const std::shared_ptr<update::registry::ipc::IRegistry> registry =
            update::registry::ipc::CreateProxy(kRegistryConnection, kRegistryEndpoint);
        const std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> checker =
            std::make_shared<signature_verifier::wrapper::UpdateVerifier>();
        nv_IVerifier productStub =
            update::verifier::ipc::CreateStub(std::make_shared<update::verifier::ProductVerifier>(registry, checker));
        nv_IVerifier applistStub =
            update::verifier::ipc::CreateStub(std::make_shared<update::verifier::ApplistVerifier>(registry, checker));
        nv_Verifier_endpoint productEndpoint{&productStub};
        nv_Verifier_endpoint applistEndpoint{&applistStub};
        nv_Verifier_component component{&productEndpoint, &applistEndpoint};

        nos::ipc::ServerContext context;
        context.logger = nos::logger::EntityLogger;
        context.staticThreadsCount = 1;
        context.serviceName = kChannel;
        context.dynamicThreadsCount = 0;
        context.descriptors.clear();
        context.skipStaticThreads = false;
        context.ignoredErrors = {NK_EAGAIN};

        VerifierServer server(&component, update::verifier::entity::DispatchOrRefuse, context);

        // The objects exist; no IPC thread runs yet.
        LogIfEnabled(LogLevel::Info, kFile, kStartedLine, "main", "{}", kStartedOk);

        const auto stopOnSignal = signalStop.Arm([&server] { server.RequestStop(); }, kChannel);
        server.StartThreads();
        server.JoinThreads();
    } catch (...) {
        (void)common::utils::ManageException("", "main");
        LogIfEnabled(LogLevel::Error, kFile, kFailedLine, "main", "{}", kStartedFailed);
        return 1;
    }
    return 0;
}
