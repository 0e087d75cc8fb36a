// Remote half of the client library: the connection to the signature-verifier
// entity and its five requests.

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>

#include <nglog/nglog.h>
#include <nos/platform.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "private/client_private.h"

namespace signature_verifier::client {

namespace {

__attribute__((format(printf, 1, 0))) void VLogFault(const char* format, va_list args)
{
    if (nglog_level_ > NGLOG_LEVEL_SILENT)
        nglog_vwrite_(NGLOG_LEVEL_ERROR, format, args);
}

}  // namespace

void LogFault(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VLogFault(format, args);
    va_end(args);
}

int Fault(int status, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VLogFault(format, args);
    va_end(args);
    return status;
}

int DecodeReply(Retcode callResult, const nv_SignatureVerifier_res& reply, const RequestNames& names)
{
    constexpr std::uint32_t kEncodedCodeBit = 0x4000u;
    if (callResult != NK_EOK) {
        const std::uint32_t magnitude = 0u - static_cast<std::uint32_t>(callResult);
        if ((magnitude & kEncodedCodeBit) != 0)
            LogFault("%s: %s, invalid completion code %d", names.function, names.method,
                     static_cast<int>((magnitude >> 15) & 0xFFFFu));
        else
            LogFault("%s: %s, invalid result %d", names.function, names.method, callResult);
        return callResult;
    }
    if (!nk_msg_is_error(&reply.base))
        return kStatusOk;
    const std::uint32_t encoded = (reply.completion_code << 15) | kEncodedCodeBit;
    LogFault("%s: %s, invalid completion code %d", names.function, names.method,
             static_cast<int>((encoded >> 15) & 0xFFFFu));
    return static_cast<int>(0u - encoded);
}

namespace {

struct Proxy;

// The interface's operation table, one entry per method in method order.
// Each entry fills the request and reply headers and makes the call.
struct ProxyOps {
    Retcode (*CheckBuffer)(Proxy*, nv_SignatureVerifier_CheckBuffer_req*, const nk_arena*, nv_SignatureVerifier_res*,
                           nk_arena*);
    Retcode (*CheckHash)(Proxy*, nv_SignatureVerifier_CheckHash_req*, const nk_arena*, nv_SignatureVerifier_res*,
                         nk_arena*);
    Retcode (*AddRootCertificate)(Proxy*, nv_SignatureVerifier_AddRootCertificate_req*, const nk_arena*,
                                  nv_SignatureVerifier_res*, nk_arena*);
    Retcode (*RevokeRootCertificate)(Proxy*, nv_SignatureVerifier_RevokeRootCertificate_req*, const nk_arena*,
                                     nv_SignatureVerifier_res*, nk_arena*);
    Retcode (*SetCRLBlob)(Proxy*, nv_SignatureVerifier_SetCRLBlob_req*, const nk_arena*, nv_SignatureVerifier_res*,
                          nk_arena*);
};

struct Proxy {
    const ProxyOps* ops;
    NkNosTransport* transport;
    std::uint16_t riid;
};

// The context of signature_verifier_init: one zero-filled heap block.
struct SignatureVerifierConnection {
    Proxy proxy;
    Proxy* interface; // every request goes through it
    NkNosTransport transport;
};

template <typename Request, std::uint16_t Mid>
Retcode Call(Proxy* proxy, Request* request, const nk_arena* requestArena, nv_SignatureVerifier_res* reply,
             nk_arena* replyArena)
{
    request->base.riid = proxy->riid;
    request->base.mid = Mid;
    nk_msg_set_size(&request->base, sizeof(Request));
    reply->base.riid = proxy->riid;
    reply->base.mid = Mid;
    nk_msg_set_size(&reply->base, sizeof(nv_SignatureVerifier_res));
    return proxy->transport->ops->call(proxy->transport, &request->base, requestArena, &reply->base, replyArena);
}

constexpr ProxyOps kProxyOps = {
    &Call<nv_SignatureVerifier_CheckBuffer_req, nv_SignatureVerifier_CheckBuffer_mid>,
    &Call<nv_SignatureVerifier_CheckHash_req, nv_SignatureVerifier_CheckHash_mid>,
    &Call<nv_SignatureVerifier_AddRootCertificate_req, nv_SignatureVerifier_AddRootCertificate_mid>,
    &Call<nv_SignatureVerifier_RevokeRootCertificate_req, nv_SignatureVerifier_RevokeRootCertificate_mid>,
    &Call<nv_SignatureVerifier_SetCRLBlob_req, nv_SignatureVerifier_SetCRLBlob_mid>,
};

// Connects to the channel and finds the interface's endpoint on it. A
// channel without the endpoint is closed again.
bool ServiceConnect(const char* connectionName, Handle* handle, std::uint16_t* riid)
{
    *handle = ServiceLocatorConnect(connectionName);
    if (*handle == INVALID_HANDLE) {
        LogFault("service_connect: ServiceLocatorConnect invalid handle");
        return false;
    }
    const std::uint32_t found = ServiceLocatorGetRiid(*handle, NV_SIGNATURE_VERIFIER_ENDPOINT);
    if (found >= INVALID_RIID) {
        LogFault("service_connect: ServiceLocatorGetRiid invalid riid");
        KnHandleClose(*handle);
        return false;
    }
    *riid = static_cast<std::uint16_t>(found);
    return true;
}

// The arena of one request: a zero-filled heap block of the data's size plus
// the slack, freed when the request ends, whatever the path.
class RequestArena {
public:
    RequestArena(std::size_t dataSize, std::size_t slack)
    {
        if (dataSize > SIZE_MAX - slack)
            return;
        m_buffer = std::calloc(dataSize + slack, 1);
        if (m_buffer != nullptr)
            nk_arena_init(&m_arena, m_buffer, dataSize + slack);
    }
    ~RequestArena() { std::free(m_buffer); }
    RequestArena(const RequestArena&) = delete;
    RequestArena& operator=(const RequestArena&) = delete;

    bool Allocated() const { return m_buffer != nullptr; }

    // Appends the bytes right behind what is stored; false when they do not
    // fit the arena or their offset or length does not fit 32 bits.
    bool Store(nk_arena_desc& descriptor, const void* data, std::size_t size)
    {
        return nk_arena_store(&m_arena, &descriptor, data, size) == NK_EOK;
    }

    const nk_arena* Get() const { return &m_arena; }

private:
    void* m_buffer = nullptr;
    nk_arena m_arena{};
};

// Slack allocated beyond the data, per item stored: never used.
constexpr std::size_t kSlackPerItem = 8;

constexpr RequestNames kCheckBuffer{"signature_verifier_check_buffer", "nv_SignatureVerifier_CheckBuffer"};
constexpr RequestNames kCheckHash{"signature_verifier_check_hash_value", "nv_SignatureVerifier_CheckHash"};
constexpr RequestNames kAddRoot{"signature_verifier_add_root_certificate", "nv_SignatureVerifier_AddRootCertificate"};
constexpr RequestNames kRevokeRoot{"signature_verifier_revoke_root_certificate",
                                   "nv_SignatureVerifier_RevokeRootCertificate"};
constexpr RequestNames kSetCrl{"signature_verifier_set_crl_blob", "nv_SignatureVerifier_SetCRLBlob"};

// One piece of variable data of a request and the field that names it.
struct ArenaItem {
    nk_arena_desc* descriptor;
    const void* data;
    std::size_t size;
};

template <typename Request>
using Operation = Retcode (*ProxyOps::*)(Proxy*, Request*, const nk_arena*, nv_SignatureVerifier_res*, nk_arena*);

// Stores the items one behind the other in a new arena, sends the request
// whose other fields are set, and decodes the answer. The caller has
// checked the sizes, so that their sum cannot wrap.
template <typename Request>
int SendWithArena(Operation<Request> operation, void* ctx, Request& request, std::initializer_list<ArenaItem> items,
                  const RequestNames& names)
{
    std::size_t total = 0;
    for (const ArenaItem& item : items)
        total += item.size;
    RequestArena arena(total, kSlackPerItem * items.size());
    if (!arena.Allocated())
        return Fault(kStatusOutOfMemory, "%s: cannot alloc memory", names.function);
    for (const ArenaItem& item : items) {
        if (!arena.Store(*item.descriptor, item.data, item.size))
            return Fault(kStatusOutOfMemory, "%s: out of memory in nk_arena_store", names.function);
    }
    Proxy* proxy = static_cast<SignatureVerifierConnection*>(ctx)->interface;
    nv_SignatureVerifier_res reply{};
    const Retcode result = (proxy->ops->*operation)(proxy, &request, arena.Get(), &reply, nullptr);
    return DecodeReply(result, reply, names);
}

}  // namespace
}  // namespace signature_verifier::client

using namespace signature_verifier::client;

extern "C" {

int signature_verifier_init(const char* connection_name, void** ctx)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_init: ctx is NULL");
    if (connection_name == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_init: Connection  ID is NULL");
    auto* connection = static_cast<SignatureVerifierConnection*>(std::calloc(1, sizeof(SignatureVerifierConnection)));
    if (connection == nullptr)
        return Fault(kStatusOutOfMemory, "signature_verifier_init: out of memory");
    Handle handle = INVALID_HANDLE;
    std::uint16_t riid = 0;
    const bool connected = ServiceConnect(connection_name, &handle, &riid);
    if (!connected || NkNosTransport_Init(&connection->transport, handle, nullptr, 0) != NK_EOK) {
        // A failed init leaves nothing behind, the channel included.
        if (connected)
            (void)KnHandleClose(handle);
        std::free(connection);
        return Fault(kStatusNoConnection, "signature_verifier_init: failed to connect to the server");
    }
    connection->proxy = Proxy{&kProxyOps, &connection->transport, riid};
    connection->interface = &connection->proxy;
    *ctx = connection;
    return kStatusOk;
}

// The channel handle stays open: the connection only owns its memory.
int signature_verifier_destroy(void* ctx)
{
    std::free(ctx);
    return kStatusOk;
}

int signature_verifier_check_buffer(void* ctx, const void* buffer, size_t buffer_size, const void* signature,
                                    size_t signature_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_buffer: ctx is NULL");
    if ((buffer == nullptr) != (buffer_size == 0))
        return Fault(kStatusInvalidArgument,
                     "signature_verifier_check_buffer: buffer and buffer size must both be NULL or not NULL");
    if (buffer_size > SIGNATURE_VERIFIER_MAX_DATA_SIZE)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_buffer: buffer size (%zu) is greater that %d",
                     buffer_size, static_cast<int>(SIGNATURE_VERIFIER_MAX_DATA_SIZE));
    if (signature == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_buffer: signature is NULL");
    if (signature_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_buffer: signature size is 0");
    if (signature_size > SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_buffer: signature size (%zu) is greater that %d",
                     signature_size, static_cast<int>(SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE));

    nv_SignatureVerifier_CheckBuffer_req request{};
    return SendWithArena(&ProxyOps::CheckBuffer, ctx, request,
                         {{&request.data, buffer, buffer_size}, {&request.signature, signature, signature_size}},
                         kCheckBuffer);
}

int signature_verifier_check_hash_value(void* ctx, uint8_t algorithm, const void* hash, size_t hash_size,
                                        const void* signature, size_t signature_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: ctx is NULL");
    if (hash == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: hash is NULL");
    if (hash_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: hash size is 0");
    if (hash_size > SIGNATURE_VERIFIER_MAX_HASH_SIZE)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: hash size (%zu) is greater that %d",
                     hash_size, static_cast<int>(SIGNATURE_VERIFIER_MAX_HASH_SIZE));
    if (signature == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: signature is NULL");
    if (signature_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash_value: signature size is 0");
    if (signature_size > SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE)
        return Fault(kStatusInvalidArgument,
                     "signature_verifier_check_hash_value: signature size (%zu) is greater that %d", signature_size,
                     static_cast<int>(SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE));

    nv_SignatureVerifier_CheckHash_req request{};
    request.algorithm = algorithm;
    return SendWithArena(&ProxyOps::CheckHash, ctx, request,
                         {{&request.hash, hash, hash_size}, {&request.signature, signature, signature_size}},
                         kCheckHash);
}

int signature_verifier_add_root_certificate(void* ctx, const void* cert, size_t cert_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_add_root_certificate: ctx is NULL");
    if (cert == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_add_root_certificate: cert is NULL");
    if (cert_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_add_root_certificate: cert size is 0");
    nv_SignatureVerifier_AddRootCertificate_req request{};
    return SendWithArena(&ProxyOps::AddRootCertificate, ctx, request, {{&request.certificate, cert, cert_size}},
                         kAddRoot);
}

int signature_verifier_revoke_root_certificate(void* ctx, const void* skid, size_t skid_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_revoke_root_certificate: ctx is NULL");
    if (skid == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_revoke_root_certificate: SKID is NULL");
    if (skid_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_revoke_root_certificate: SKID size is 0");
    nv_SignatureVerifier_RevokeRootCertificate_req request{};
    return SendWithArena(&ProxyOps::RevokeRootCertificate, ctx, request, {{&request.identifier, skid, skid_size}},
                         kRevokeRoot);
}

int signature_verifier_set_crl_blob(void* ctx, const void* crl, size_t crl_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_set_crl_blob: ctx is NULL");
    if ((crl == nullptr) != (crl_size == 0))
        return Fault(kStatusInvalidArgument,
                     "signature_verifier_set_crl_blob: CRL must be NULL same time as CRL Size is 0");
    nv_SignatureVerifier_SetCRLBlob_req request{};
    return SendWithArena(&ProxyOps::SetCRLBlob, ctx, request, {{&request.crl, crl, crl_size}}, kSetCrl);
}

}  // extern "C"
