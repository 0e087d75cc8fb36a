// The test PKI of scripts/make-test-pki for the benchmarks that check real
// signatures: temporary directories, the PKI, signatures made with the
// openssl command line, and Streebog-256 through libgcrypt.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace signature_verifier::host::testing {

using ByteVector = std::vector<std::uint8_t>;

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
public:
    explicit TempDir(const std::string& prefix);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

ByteVector ReadBytes(const std::filesystem::path& file);
void WriteBytes(const std::filesystem::path& file, const ByteVector& bytes);
ByteVector ToBytes(const std::string& text);

// Root of the source tree: VERIFIER_SOURCE_DIR when set, else the tree the
// tests were built from.
std::filesystem::path SourceDir();

// Runs a command line through /bin/sh with its output in `log`; throws
// std::runtime_error with the log's content when it exits non-zero.
void RunOrThrow(const std::string& command, const std::filesystem::path& log);

std::string ShellQuote(const std::string& text);

// The test PKI of scripts/make-test-pki in a directory of its own, and
// signatures made with it.
class TestPki {
public:
    // Makes the PKI in `dir` (throws on failure).
    explicit TestPki(std::filesystem::path dir);

    std::filesystem::path File(const std::string& name) const { return m_dir / name; }
    ByteVector Der(const std::string& name) const { return ReadBytes(File(name + ".der")); }

    // Signs `data` through scripts/sign-package as the update archive of a
    // package folder, with `signer` (signer, revoked-signer, wrong-signer)
    // and the intermediate embedded.
    ByteVector SignPackage(const ByteVector& data, const std::string& signer = "signer") const;

    // Signs `data` with `openssl cms -sign` and further options `options`
    // (e.g. "-nodetach", "-noattr"), with `signer`'s key; GOST engine loaded.
    ByteVector SignWithOptions(const ByteVector& data, const std::string& signer, const std::string& options) const;

    // Makes, once, a self-signed ECDSA P-256 certificate "ec-signer" beside the
    // PKI: a signer of an algorithm the entity does not accept.
    void MakeEcSigner() const;

private:
    std::filesystem::path m_dir;
};

// Streebog-256 (GOST R 34.11-2012, 256-bit) of `data`, through libgcrypt.
ByteVector Streebog256(const ByteVector& data);

// SHA-256 of `data`, through libgcrypt: the identifier of a certificate's DER.
ByteVector Sha256(const ByteVector& data);

}  // namespace signature_verifier::host::testing
