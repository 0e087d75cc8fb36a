// Prints "<hex digest>  <file>" for one file, hashed with GOST R 34.11-2012
// (256 bits) through the installed Nds library: the line gost-hash prints.
#include <cstdio>
#include <fstream>
#include <vector>

#include <common/utils/manage_exception.h>
#include <nds/nds.h>
#include <nglog/nglog.h>
#include <nos/ipc/server.h>
#include <shared_log_function_for_entity/entity_logger.h>
#include <signature_verifier/update_verifier.h>
#include <update/registry/ipc/proxy.h>
#include <verifier_api/component.h>
#include <verifier_api/stub_factory.h>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: consumer FILE\n");
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    NdsHasher* hasher = nullptr;
    if (!in || NdsInitializeLibrary() != 0 || NdsCreateHasher(NDS_HASH_GOST_2012_256, &hasher) != 0)
        return 1;
    std::vector<char> chunk(1 << 16);
    while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0)
        if (NdsUpdateHasher(hasher, chunk.data(), static_cast<size_t>(in.gcount())) != 0)
            return 1;
    unsigned char digest[32];
    if (in.bad() || NdsFinalizeHasher(hasher, digest, sizeof digest) != 0)
        return 1;
    for (unsigned char byte : digest)
        std::printf("%02x", byte);
    std::printf("  %s\n", argv[1]);
    NdsDeleteHasher(hasher);
    return NdsDeInitializeLibrary();
}
