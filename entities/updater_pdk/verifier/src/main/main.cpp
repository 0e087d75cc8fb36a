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

#include <signature_verifier/update_verifier.h>

#include "entity.h"
#include "signal_stop.h"
#include "update/registry/ipc/proxy.h"

namespace {
constexpr std::string_view kRegistryConnection = "update_registry";
constexpr std::string_view kRegistryEndpoint = "UpdateRegistry.UpdateRegistry";
}  // namespace

int main()
{
    // Before the logger starts its flush thread, so that every thread
    // inherits the blocked stop signals.
    update::verifier::entity::SignalStop signalStop;
    update::verifier::entity::Peers peers;
    peers.makeRegistry = [] { return update::registry::ipc::CreateProxy(kRegistryConnection, kRegistryEndpoint); };
    peers.makeChecker = [] { return std::make_shared<signature_verifier::wrapper::UpdateVerifier>(); };
    peers.signals = &signalStop;
    return update::verifier::entity::Run(peers);
}
