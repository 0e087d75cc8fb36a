#include "entity.h"

#include <optional>
#include <string_view>

#include <nos/types.h>
#include <nos/ipc/server.h>

#include "common/utils/manage_exception.h"
#include "nos/logger/nos_logger.h"
#include "refused_request.h"
#include "shared_log_function_for_entity/entity_logger.h"
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"
#include "verifier_api/component.h"
#include "verifier_api/stub_factory.h"

namespace update::verifier::entity {
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

constexpr const char* kChannel = "verifier";

}  // namespace

int Run(const Peers& peers)
{
    try {
        nos::logger::NOSLogger::Setup(LogLevel::Debug, nullptr);

        // Declared in creation order: they are destroyed in reverse, the
        // server first and the registry client last.
        const std::shared_ptr<update::registry::ipc::IRegistry> registry = peers.makeRegistry();
        const std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> checker = peers.makeChecker();
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

        VerifierServer server(&component, DispatchOrRefuse, context, peers.transport);

        // The objects exist; no IPC thread runs yet.
        LogIfEnabled(LogLevel::Info, kFile, kStartedLine, "main", "{}", kStartedOk);

        std::optional<SignalStop::Armed> stopOnSignal;
        if (peers.signals != nullptr)
            stopOnSignal.emplace(*peers.signals, [&server] { server.RequestStop(); }, kChannel);
        server.StartThreads();
        server.JoinThreads();
    } catch (...) {
        (void)common::utils::ManageException("", "main");
        LogIfEnabled(LogLevel::Error, kFile, kFailedLine, "main", "{}", kStartedFailed);
        return 1;
    }
    return 0;
}

}  // namespace update::verifier::entity
