// Loading of the OpenSSL GOST engine, which brings GOST R 34.10-2012 keys and
// the Streebog digests to libcrypto.
#pragma once

#include <filesystem>
#include <optional>

namespace signature_verifier::host {

// Keeps the GOST engine initialised and registered as the default for all of
// its algorithms while the object lives. One per process.
class GostEngine {
public:
    // Loads the engine by its id "gost" from libcrypto's engine directory, or
    // from the shared object `path` when one is given. Throws
    // std::runtime_error with the reason when it cannot be loaded, initialised
    // or registered.
    explicit GostEngine(const std::optional<std::filesystem::path>& path = std::nullopt);
    ~GostEngine();

    GostEngine(const GostEngine&) = delete;
    GostEngine& operator=(const GostEngine&) = delete;

private:
    void* m_engine = nullptr; // ENGINE*, kept opaque so that callers need no deprecated headers
};

}  // namespace signature_verifier::host
