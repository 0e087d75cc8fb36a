// UpdateVerifier: the signature checks of update package files over the
// client library, each call a complete transaction that returns a result code.

#include <signature_verifier/update_verifier.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <string>

#include <eka/exception.h>
#include <eka/posix/result_code.h>
#include <eka/result_code.h>
#include <eka/text.h>
#include <eka/throw.h>
#include <nglog/nglog.h>
#include <signature_verifier/signature_verifier.h>

#include "private/result_funnel.h"

namespace signature_verifier::wrapper {
namespace {

// Source location recorded in the exceptions thrown here.
constexpr const char* kSourceFile =
    "security/crypto/signature_verifier/x86_64_nos/src/libraries/client_cpp/src/signature_verifier";
constexpr int kLineContextFailed = 43;
constexpr int kLineInvalidContext = 44;
constexpr int kLineOpenFailed = 77;
constexpr int kLineReadFailed = 79;
constexpr int kLineCheckBuffer = 100;
constexpr int kLineCheckHash = 116;
constexpr int kLineHashBuffer = 136;
constexpr int kLineHashValue = 142;

// Files are hashed in pieces of at most this size.
constexpr std::streamoff kReadChunk = 0x4000000;
// Whole files are read through a buffer of this size.
constexpr std::size_t kReadPiece = 64 * 1024;
// Room given for the digest: the largest hash the entity accepts.
constexpr std::size_t kHashReserve = 512;
// GOST R 34.11-2012, 256 bits: the algorithm of the hash contexts.
constexpr std::uint8_t kHashAlgorithm = 1;

#ifndef VERIFIER_STRICT_SIGNATURE_STATUS
#define VERIFIER_STRICT_SIGNATURE_STATUS 0
#endif
constexpr bool kStrictStatus = VERIFIER_STRICT_SIGNATURE_STATUS != 0;

// The one place where a status of the client library is judged. By default
// only a negative status (a completion code of the entity or a transport
// error) fails a call, and the library's positive local refusals pass as
// success. The strict build fails on any non-zero status.
constexpr bool LibraryCallFailed(int status) noexcept
{
    return kStrictStatus ? status != 0 : status < 0;
}

// The result code a failing status carries: a negative status is one
// already; a positive one is an errno value (strict build only).
std::int32_t CodeOfStatus(int status) noexcept
{
    return status > 0 ? eka::posix::ResultCodeFromSystemError(static_cast<unsigned int>(status)) : status;
}

[[noreturn]] void ThrowCallFailed(int line, int status)
{
    eka::Throw(kSourceFile, line, eka::CheckResultFailedException(CodeOfStatus(status), u"Expression failed"));
}

[[noreturn]] void ThrowCheckFailed(int line, const char16_t* text)
{
    eka::Throw(kSourceFile, line, eka::CheckFailedException(std::u16string(text)));
}

// A hash context or a connection made by the library: a failing status, or
// a success that gave no context, ends the call.
void CheckContextMade(int status, const void* context)
{
    if (LibraryCallFailed(status))
        eka::Throw(kSourceFile, kLineContextFailed,
                   eka::CheckResultFailedException(CodeOfStatus(status), u"Expression failed")
                       << "fail to initialize context");
    if (context == nullptr)
        ThrowCheckFailed(kLineInvalidContext, u"invalid context");
}

struct ConnectionCloser {
    void operator()(void* ctx) const noexcept { signature_verifier_destroy(ctx); }
};
using Connection = std::unique_ptr<void, ConnectionCloser>;

struct HashContextCloser {
    void operator()(void* hash) const noexcept { (void)signature_verifier_hash_close(hash); }
};
using HashContext = std::unique_ptr<void, HashContextCloser>;

Connection MakeSignatureContext()
{
    void* ctx = nullptr;
    const int status = signature_verifier_init(SIGNATURE_VERIFIER_SERVICE_NAME, &ctx);
    Connection connection(ctx);
    CheckContextMade(status, ctx);
    return connection;
}

HashContext MakeHashContext()
{
    void* hash = nullptr;
    const int status = signature_verifier_hash_create(&hash);
    HashContext context(hash);
    CheckContextMade(status, hash);
    return context;
}

// A read-only binary stream and the file's size, taken as the position at
// its end. The stream may have failed to open: callers test it.
struct SizedFile {
    std::fstream stream;
    std::streamoff size = 0;
};

SizedFile OpenSizedFile(const std::filesystem::path& path)
{
    SizedFile file{std::fstream(path, std::ios::in | std::ios::binary | std::ios::ate)};
    file.size = file.stream.tellg();
    file.stream.seekg(0, std::ios::beg);
    return file;
}

void CheckOpened(const SizedFile& file)
{
    if (!file.stream.is_open())
        ThrowCheckFailed(kLineOpenFailed, u"fail to open file file");
}

std::vector<std::uint8_t> ReadWholeFile(const std::filesystem::path& path)
{
    SizedFile file = OpenSizedFile(path);
    CheckOpened(file);
    // Everything the stream buffer gives up to the end of the file; the size
    // found at opening is not relied on.
    std::vector<std::uint8_t> bytes;
    std::streambuf& input = *file.stream.rdbuf();
    char piece[kReadPiece];
    for (std::streamsize got; (got = input.sgetn(piece, sizeof piece)) > 0;)
        bytes.insert(bytes.end(), piece, piece + got);
    if (file.stream.bad() || file.stream.fail())
        ThrowCheckFailed(kLineReadFailed, u"fail to read file file");
    return bytes;
}

// Reads the next `length` bytes into `buffer` and hashes all `length` of
// them: what the read did not fill (a file that shrank after it was opened)
// is zeroed first, so the bytes hashed are those of a fresh zero-filled
// buffer. A stream that broke (a read error, or a path that is no regular
// file and reported a meaningless size) ends the call rather than hashing
// zeros for ever.
void HashChunk(std::istream& in, char* buffer, std::size_t length, void* hash)
{
    in.read(buffer, static_cast<std::streamsize>(length));
    if (in.bad())
        ThrowCheckFailed(kLineReadFailed, u"fail to read file file");
    const auto got = static_cast<std::size_t>(in.gcount());
    std::memset(buffer + got, 0, length - got);
    const int status = signature_verifier_hash_buffer(hash, buffer, length);
    if (LibraryCallFailed(status))
        ThrowCallFailed(kLineHashBuffer, status);
}

}  // namespace

namespace detail {

std::int32_t ResultFromCurrentException(std::string_view operation) noexcept
{
    const int length = static_cast<int>(operation.size());
    try {
        throw;
    } catch (const eka::Exception& e) {
        if (nglog_level_ > NGLOG_LEVEL_SILENT) {
            const std::string description = eka::text::Utf16ToUtf8(e.full_description());
            nglog_write_(NGLOG_LEVEL_ERROR, "%s ; detailed: exception during: %.*s", description.c_str(), length,
                         operation.data());
        }
        return eka::ResultCodeOf(e);
    } catch (const std::exception& e) {
        if (nglog_level_ > NGLOG_LEVEL_SILENT)
            nglog_write_(NGLOG_LEVEL_ERROR, "%s ; detailed: exception during %.*s", e.what(), length,
                         operation.data());
        return eka::result::UnspecifiedError;
    } catch (...) {
        // Nothing is known of the object beyond its being thrown.
        if (nglog_level_ > NGLOG_LEVEL_SILENT)
            nglog_write_(NGLOG_LEVEL_ERROR, "detailed: Unknown exception type during %.*s", length, operation.data());
        return eka::result::UnknownException;
    }
}

}  // namespace detail

std::int32_t UpdateVerifier::GetHash(const std::filesystem::path& file, std::vector<std::uint8_t>& hash)
{
    try {
        const HashContext context = MakeHashContext();
        SizedFile input = OpenSizedFile(file);
        CheckOpened(input);
        // One buffer for every chunk of the call, as large as the first: each
        // page is faulted in once per call, not once per chunk.
        const std::streamoff bufferSize = std::clamp(input.size, std::streamoff{0}, kReadChunk);
        const auto buffer = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(bufferSize));
        for (std::streamoff offset = 0; offset < input.size; offset += kReadChunk) {
            const std::streamoff length = std::min(input.size - offset, kReadChunk);
            HashChunk(input.stream, buffer.get(), static_cast<std::size_t>(length), context.get());
        }
        hash.resize(kHashReserve);
        std::size_t size = hash.size();
        const int status = signature_verifier_get_hash_value(context.get(), hash.data(), &size);
        if (LibraryCallFailed(status))
            ThrowCallFailed(kLineHashValue, status);
        hash.resize(size);
        return eka::result::NoError;
    } catch (...) {
        return detail::ResultFromCurrentException("get_hash");
    }
}

std::int32_t UpdateVerifier::VerifyHash(const std::vector<std::uint8_t>& hash, const std::filesystem::path& signature)
{
    try {
        const std::vector<std::uint8_t> signatureBytes = ReadWholeFile(signature);
        const Connection connection = MakeSignatureContext();
        const int status = signature_verifier_check_hash_value(connection.get(), kHashAlgorithm, hash.data(),
                                                               hash.size(), signatureBytes.data(),
                                                               signatureBytes.size());
        if (LibraryCallFailed(status))
            ThrowCallFailed(kLineCheckHash, status);
        return eka::result::NoError;
    } catch (...) {
        return detail::ResultFromCurrentException("verify_hash");
    }
}

std::int32_t UpdateVerifier::Verify(const std::filesystem::path& file, const std::filesystem::path& signature)
{
    try {
        const std::vector<std::uint8_t> data = ReadWholeFile(file);
        const std::vector<std::uint8_t> signatureBytes = ReadWholeFile(signature);
        const Connection connection = MakeSignatureContext();
        const int status = signature_verifier_check_buffer(connection.get(), data.data(), data.size(),
                                                           signatureBytes.data(), signatureBytes.size());
        if (LibraryCallFailed(status))
            ThrowCallFailed(kLineCheckBuffer, status);
        return eka::result::NoError;
    } catch (...) {
        return detail::ResultFromCurrentException("verify");
    }
}

}  // namespace signature_verifier::wrapper
