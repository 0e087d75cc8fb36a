// Runtime support routines that keep the library off the platform's own
// runtime interfaces.
#include <cstdlib>

#include "nds/nds.h"

extern "C" {

void* NstdcAlloc(size_t size) { return size == 0 ? nullptr : std::malloc(size); }

void NstdcFree(void* p) { std::free(p); }

// Plain read: a stale value is acceptable to every caller (each re-checks
// with the locked operations where it matters).
int32_t NstdcAtomicRead(const volatile int32_t* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }

int32_t NstdcAtomicInc(volatile int32_t* p) { return __atomic_add_fetch(p, 1, __ATOMIC_SEQ_CST); }

int32_t NstdcAtomicDec(volatile int32_t* p) { return __atomic_sub_fetch(p, 1, __ATOMIC_SEQ_CST); }

}  // extern "C"
