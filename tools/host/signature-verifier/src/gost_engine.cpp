// The ENGINE interface is deprecated in OpenSSL 3 but is the only one through
// which Debian's GOST engine plugs in; its use is confined to this file.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "gost_engine.h"

#include <stdexcept>
#include <string>

#include <openssl/engine.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "openssl_support.h"

namespace signature_verifier::host {
namespace {

ENGINE* LoadById()
{
    return ENGINE_by_id("gost");
}

ENGINE* LoadFromFile(const std::filesystem::path& path)
{
    ENGINE* engine = ENGINE_by_id("dynamic");
    if (engine == nullptr)
        return nullptr;
    const std::string file = path.string();
    if (ENGINE_ctrl_cmd_string(engine, "SO_PATH", file.c_str(), 0) != 1 ||
        ENGINE_ctrl_cmd_string(engine, "ID", "gost", 0) != 1 ||
        ENGINE_ctrl_cmd_string(engine, "LOAD", nullptr, 0) != 1) {
        ENGINE_free(engine);
        return nullptr;
    }
    return engine;
}

[[noreturn]] void Fail(const std::string& what)
{
    std::string message = "cannot load the GOST engine: " + what;
    const std::string errors = TakeOpenSslErrors();
    if (!errors.empty())
        message += " (" + errors + ")";
    throw std::runtime_error(message);
}

}  // namespace

GostEngine::GostEngine(const std::optional<std::filesystem::path>& path)
{
    ENGINE* engine = path ? LoadFromFile(*path) : LoadById();
    if (engine == nullptr)
        Fail(path ? "no usable engine in " + path->string() : std::string("no engine \"gost\" in libcrypto's engine directory"));
    if (ENGINE_init(engine) != 1) {
        ENGINE_free(engine);
        Fail("the engine did not initialise");
    }
    // The functional reference taken by ENGINE_init keeps the engine alive.
    ENGINE_free(engine);
    if (ENGINE_set_default(engine, ENGINE_METHOD_ALL) != 1) {
        ENGINE_finish(engine);
        Fail("the engine's algorithms could not be registered");
    }
    if (EVP_get_digestbynid(NID_id_GostR3411_2012_256) == nullptr) {
        ENGINE_finish(engine);
        Fail("the engine provides no Streebog-256 digest");
    }
    m_engine = engine;
}

GostEngine::~GostEngine()
{
    auto* engine = static_cast<ENGINE*>(m_engine);
    ENGINE_unregister_ciphers(engine);
    ENGINE_unregister_digests(engine);
    ENGINE_unregister_pkey_meths(engine);
    ENGINE_unregister_pkey_asn1_meths(engine);
    ENGINE_finish(engine);
}

}  // namespace signature_verifier::host
