// What the tests of the client library and of the UpdateVerifier share: nglog
// as the Verifier has it (level 2, standard error, no name, plain prefix), a
// runtime directory of their own, the lines a call writes, and the seams of
// the test executable, which is linked with --wrap=NkNosTransport_Init and
// --wrap=signature_verifier_hash_buffer (client_test.cpp defines both).
#pragma once

#include <gcrypt.h>
#include <gtest/gtest.h>
#include <nglog/nglog.h>
#include <nos/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/runtime_dir.h"

namespace signature_verifier::testing {

using Bytes = std::vector<std::uint8_t>;

struct Seams {
    static inline bool failTransportInit = false;
    // When set, the transport's call is not made and returns this.
    static inline std::optional<Retcode> callResult;
    // Sees each chunk before the wrapper hashes it; may throw.
    static inline std::function<void(const void* chunk, std::size_t size)> onChunk;
};

// A status and the lines written to standard error meanwhile, without the
// host platform's own.
struct Logged {
    int status;
    std::vector<std::string> lines;
    bool operator==(const Logged&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Logged& logged)
{
    out << logged.status;
    for (const auto& line : logged.lines)
        out << "\n  \"" << line << '"';
    return out;
}

inline Logged RunLogged(const std::function<int()>& call)
{
    test_support::LogCapture log;
    Logged logged{};
    {
        test_support::StderrCapture capture(log);
        logged.status = call();
    }
    for (const auto& line : log.Lines()) {
        if (line.text.rfind("[nos-host]", 0) != 0)
            logged.lines.push_back(line.text);
    }
    return logged;
}

// `line` alone, or no line.
inline std::vector<std::string> Lines(bool logged, const std::string& line)
{
    return logged ? std::vector<std::string>{line} : std::vector<std::string>{};
}

inline Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

inline Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }

// A digest through libgcrypt.
inline Bytes Digest(int algorithm, const Bytes& data)
{
    EXPECT_NE(gcry_check_version(nullptr), nullptr);
    Bytes digest(gcry_md_get_algo_dlen(algorithm));
    gcry_md_hash_buffer(algorithm, digest.data(), data.data(), data.size());
    return digest;
}

class ClientTest : public test_support::RuntimeDirTest {
protected:
    void SetUp() override
    {
        nglog_init(nullptr, NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_WARNING);
        nglog_enable_extended_prefix(0);
    }
    void TearDown() override
    {
        Seams::failTransportInit = false;
        Seams::callResult.reset();
        Seams::onChunk = nullptr;
    }
};

}  // namespace signature_verifier::testing
