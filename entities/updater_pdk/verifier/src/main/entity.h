// The entity's body: everything main does, with the peers given to it. main
// gives the fixed names (the registry's connection and endpoint, the
// signature checker of the platform) and the stop on signals.
#pragma once

#include <nos/transport.h>

#include <functional>
#include <memory>

#include <signature_verifier/update_verifier.h>

#include "signal_stop.h"
#include "update/registry/ipc/registry.h"

namespace update::verifier::entity {

struct Peers {
    // Called once each, in this order, after the logger is set up. Either
    // may throw; an empty owner fails the start as well.
    std::function<std::shared_ptr<update::registry::ipc::IRegistry>()> makeRegistry;
    std::function<std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier>()> makeChecker;
    // The server's transport operations; null: the platform's.
    const NkNosTransportOps* transport = nullptr;
    // When given, SIGTERM and SIGINT stop serving while the server runs.
    SignalStop* signals = nullptr;
};

// Sets the root logger up at debug level, builds both verifiers on the two
// peers, their interface objects, the component (endpoint 0 the update
// archive, endpoint 1 the application list) and its server on the channel
// "verifier" (one IPC thread, which goes on after NK_EAGAIN), logs "Entity
// started [OK]" and serves until the IPC thread ends: 0. Any exception on
// the way is logged by ManageException under "main", followed by "Entity
// started [FAILED]" at error level: 1.
int Run(const Peers& peers);

}  // namespace update::verifier::entity
