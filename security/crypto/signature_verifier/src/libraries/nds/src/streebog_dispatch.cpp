// Choice of the compression implementation for this CPU.
#include "streebog_compress.h"

namespace nds::gost {

const CompressImpl& SelectedImpl() {
    static const CompressImpl& chosen = []() -> const CompressImpl& {
#if NDS_HAVE_AVX_IMPL
        __builtin_cpu_init();
        if (__builtin_cpu_supports("avx")) {
            return AvxImpl();
        }
#endif
        return PortableImpl();
    }();
    return chosen;
}

ImplList UsableImpls() {
    ImplList list{{&SelectedImpl()}, 1};
    if (&SelectedImpl() != &PortableImpl()) {
        list.items[list.count++] = &PortableImpl();
    }
    return list;
}

}  // namespace nds::gost
