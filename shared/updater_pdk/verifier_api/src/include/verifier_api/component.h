// The IVerifier interface object and the component that serves it on two
// endpoints.
//
//   nv_IVerifier product = update::verifier::ipc::CreateStub(productVerifier);
//   nv_IVerifier applist = update::verifier::ipc::CreateStub(applistVerifier);
//   nv_Verifier_endpoint productEndpoint{&product};
//   nv_Verifier_endpoint applistEndpoint{&applist};
//   nv_Verifier_component component{&productEndpoint, &applistEndpoint};
//   nos::ipc::Server<nv_Verifier_component, nv_Verifier_component_req, 0,
//                    nv_Verifier_component_res, 0>
//       server(&component, nv_Verifier_component_dispatch, context);
//
// The component and its endpoint records only point; whoever builds them
// keeps the interface objects alive for as long as the server runs.
#pragma once

#include <nos/message.h>

#include <memory>

#include "verifier_api/messages.h"
#include "verifier_api/verifier.h"

struct nv_IVerifier;

// The interface's operations, in method order.
struct nv_IVerifier_ops {
    int (*Verify)(nv_IVerifier* self, const nv_IVerifier_Verify_req* req, const nk_arena* reqArena,
                  nv_IVerifier_Verify_res* res, nk_arena* resArena);
};

// One interface object: the operations and the verifier they call.
struct nv_IVerifier {
    const nv_IVerifier_ops* ops = nullptr;
    std::shared_ptr<update::verifier::ipc::IVerifier> verifier;
};

// One endpoint of the component.
struct nv_Verifier_endpoint {
    nv_IVerifier* verifier = nullptr;
};

// The endpoints in interface-index order: 0 the update archive, 1 the
// application list.
struct nv_Verifier_component {
    nv_Verifier_endpoint* productVerifier = nullptr;
    nv_Verifier_endpoint* applistVerifier = nullptr;
};

// Routes one request by its interface index to an endpoint and runs the
// method, the server's dispatch function. Returns what the method returned,
// or -2 for an interface index with no endpoint (nothing is written) or a
// method index other than 0 (only the two indexes are written to the reply).
// A request to an endpoint that is not wired is answered as one to an
// unknown interface; null arguments give NK_EINVAL and write nothing.
// The reply buffer must hold at least sizeof(nv_IVerifier_Verify_res) bytes.
int nv_Verifier_component_dispatch(nv_Verifier_component* self, const nk_message* req, const nk_arena* reqArena,
                                   nk_message* res, nk_arena* resArena);
