// Helpers shared by the hasher implementations of the Nds library.
#pragma once

#include <cstring>

#include "nds/nds.h"

namespace nds::detail {

// A zeroed hasher record, or null when memory runs out.
inline NdsHasher* AllocHasher() {
    auto* h = static_cast<NdsHasher*>(NstdcAlloc(sizeof(NdsHasher)));
    if (h != nullptr) {
        std::memset(h, 0, sizeof(*h));
    }
    return h;
}

// Releases the record of a hasher whose state is already gone.
inline void FreeHasher(NdsHasher* h) {
    h->ops = nullptr;
    NstdcFree(h);
}

}  // namespace nds::detail
