#include "pki_fixture.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gcrypt.h>
#include <unistd.h>

namespace signature_verifier::host::testing {

TempDir::TempDir(const std::string& prefix)
{
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + ".XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary directory from " + pattern);
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ByteVector ReadBytes(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open " + file.string());
    return ByteVector((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::filesystem::path& file, const ByteVector& bytes)
{
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out)
        throw std::runtime_error("cannot write " + file.string());
}

ByteVector ToBytes(const std::string& text)
{
    return ByteVector(text.begin(), text.end());
}

std::filesystem::path SourceDir()
{
    const char* dir = std::getenv("VERIFIER_SOURCE_DIR");
    if (dir != nullptr && *dir != '\0')
        return dir;
    return SIGNATURE_VERIFIER_SOURCE_DIR;
}

std::string ShellQuote(const std::string& text)
{
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

void RunOrThrow(const std::string& command, const std::filesystem::path& log)
{
    const int status = std::system((command + " >" + ShellQuote(log.string()) + " 2>&1").c_str());
    if (status != 0) {
        std::string output;
        try {
            const ByteVector bytes = ReadBytes(log);
            output.assign(bytes.begin(), bytes.end());
        } catch (const std::runtime_error& error) {
            output = error.what();
        }
        throw std::runtime_error("command failed (status " + std::to_string(status) + "): " + command + "\n" + output);
    }
}

TestPki::TestPki(std::filesystem::path dir) : m_dir(std::move(dir))
{
    RunOrThrow(ShellQuote((SourceDir() / "scripts" / "make-test-pki").string()) + " " + ShellQuote(m_dir.string()),
               m_dir.parent_path() / "make-test-pki.log");
}

namespace {

// A work directory beside the PKI for one signature.
std::filesystem::path NextWorkDir(const std::filesystem::path& pki)
{
    static std::atomic<unsigned> counter{0};
    auto dir = pki.parent_path() / ("sign-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(dir);
    return dir;
}

}  // namespace

ByteVector TestPki::SignPackage(const ByteVector& data, const std::string& signer) const
{
    const auto dir = NextWorkDir(m_dir);
    WriteBytes(dir / "update_vantor3.tar.gz", data);
    RunOrThrow(ShellQuote((SourceDir() / "scripts" / "sign-package").string()) + " " + ShellQuote(dir.string()) +
                   " --cert " + ShellQuote(File(signer + ".pem").string()) + " --key " +
                   ShellQuote(File(signer + ".key").string()) + " --chain " +
                   ShellQuote(File("chain.pem").string()),
               dir / "sign.log");
    ByteVector signature = ReadBytes(dir / "update_vantor3.sign");
    std::filesystem::remove_all(dir);
    return signature;
}

ByteVector TestPki::SignWithOptions(const ByteVector& data, const std::string& signer, const std::string& options) const
{
    const auto dir = NextWorkDir(m_dir);
    WriteBytes(dir / "data", data);
    RunOrThrow("openssl cms -engine gost -sign -binary -in " + ShellQuote((dir / "data").string()) + " -signer " +
                   ShellQuote(File(signer + ".pem").string()) + " -inkey " +
                   ShellQuote(File(signer + ".key").string()) + " -outform DER -out " +
                   ShellQuote((dir / "signature").string()) + " " + options,
               dir / "sign.log");
    ByteVector signature = ReadBytes(dir / "signature");
    std::filesystem::remove_all(dir);
    return signature;
}

void TestPki::MakeEcSigner() const
{
    if (std::filesystem::exists(File("ec-signer.pem")))
        return;
    RunOrThrow("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=EC -days 30 -keyout " +
                   ShellQuote(File("ec-signer.key").string()) + " -out " + ShellQuote(File("ec-signer.pem").string()),
               m_dir / "ec-signer.log");
}

namespace {

ByteVector Digest(int algorithm, const ByteVector& data)
{
    if (gcry_check_version(GCRYPT_VERSION) == nullptr)
        throw std::runtime_error("libgcrypt version mismatch");
    ByteVector digest(gcry_md_get_algo_dlen(algorithm));
    gcry_md_hash_buffer(algorithm, digest.data(), data.data(), data.size());
    return digest;
}

}  // namespace

ByteVector Streebog256(const ByteVector& data)
{
    return Digest(GCRY_MD_STRIBOG256, data);
}

ByteVector Sha256(const ByteVector& data)
{
    return Digest(GCRY_MD_SHA256, data);
}

}  // namespace signature_verifier::host::testing
