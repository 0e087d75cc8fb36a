// The signature-verifier entity run as a child process, and a raw client of
// it over the host platform.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nos/platform.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "test_support.h"
#include "wire_requests.h"

namespace signature_verifier::host::testing {

// Path of the signature-verifier executable under test.
std::filesystem::path EntityBinary();

// Runs a program to its end with stdout and stderr in `output`; returns its
// exit status, or -1 when it did not end within `limit` (it is killed then).
int RunToEnd(const std::vector<std::string>& argv, std::string& output,
             std::chrono::milliseconds limit = std::chrono::seconds(20));

// A running entity. The platform's runtime directory is the one of this
// process's environment (NOS_RUNTIME_DIR), which the child inherits.
class EntityProcess {
public:
    // Starts the entity with `args`; its output goes to `log`.
    EntityProcess(const std::vector<std::string>& args, std::filesystem::path log);
    ~EntityProcess();
    EntityProcess(const EntityProcess&) = delete;
    EntityProcess& operator=(const EntityProcess&) = delete;

    // Waits until the channel accepts connections and returns a connected
    // handle; throws std::runtime_error with the entity's log when it exits
    // or does not serve within 20 s.
    Handle WaitServing();

    // Sends SIGTERM and returns the exit status (-1 after a signal or when it
    // had to be killed after 10 s).
    int Stop();

    std::string Log() const;

private:
    pid_t m_pid = -1;
    std::filesystem::path m_log;
};

// A client of the entity that speaks the wire layouts directly.
class RawClient {
public:
    // Takes over the connected handle `channel`.
    explicit RawClient(Handle channel);
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    struct Answer {
        Retcode rc = NK_EOK;
        nv_SignatureVerifier_res reply{};
    };

    // Sends the request as it is and waits for the reply.
    Answer Call(const WireRequest& request);

    // The completion code of the answer: 0 for a plain reply. Records a test
    // failure, and gives 0xFFFFFFFF, when the transport failed or the reply
    // is not a 32-byte reply of the request's method.
    std::uint32_t Code(const WireRequest& request);

    std::uint32_t Riid() const { return m_riid; }

private:
    Handle m_channel;
    NkNosTransport m_transport{};
    std::uint32_t m_riid = INVALID_RIID;
};

}  // namespace signature_verifier::host::testing
