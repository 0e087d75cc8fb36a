// What the verifier's process tests share: one Verify from this process on a
// connection of its own, and the verifier's log lines as they reach the log
// storage.
#pragma once

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "verifier_api/messages.h"

namespace verifier_e2e {

inline constexpr std::uint16_t kProduct = 0;
inline constexpr std::uint16_t kApplist = 1;

// The result of a normal (0x18: 0) or error (0x80000020: its code) reply;
// none when the call failed or the reply has another size word.
inline std::optional<std::uint32_t> Verify(std::uint16_t riid, std::uint32_t handle)
{
    const Handle channel = ServiceLocatorConnect("verifier");
    NkNosTransport transport{};
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    nk_msg_set_size(&request.base_, sizeof request);
    request.handle = handle;
    nv_IVerifier_Verify_res reply{};
    nk_msg_set_size(&reply.base_, sizeof reply);
    Retcode rc = channel == INVALID_HANDLE ? NK_ENOENT : NkNosTransport_Init(&transport, channel, nullptr, 0);
    if (rc == NK_EOK)
        rc = transport.ops->call(&transport, &request.base_, nullptr, &reply.base_, nullptr);
    (void)KnHandleClose(channel);
    if (rc != NK_EOK || (reply.base_.size != 0x18u && reply.base_.size != 0x80000020u)) {
        ADD_FAILURE() << "call " << rc << ", size word 0x" << std::hex << reply.base_.size;
        return std::nullopt;
    }
    return reply.base_.size == 0x18u ? 0u : static_cast<std::uint32_t>(reply.result);
}

// The verifier's lines in `text` (records or a log storage's output), as
// "[verifier][level][file:line] message": without the time stamp and the
// process and thread ids, and without the line numbers of other parts' files.
inline std::vector<std::string> VerifierLines(const std::string& text)
{
    static const std::regex kIds(R"(\[\d+:\d+\] )");
    static const std::regex kOtherLine(R"(\[(manage_exception|proxy_base|shared_log_function_for_entity):\d+\])");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (const size_t at = line.find("[verifier]"); at != std::string::npos)
            lines.push_back(std::regex_replace(std::regex_replace(line.substr(at), kIds, " "), kOtherLine, "[$1]"));
    }
    return lines;
}

}  // namespace verifier_e2e
