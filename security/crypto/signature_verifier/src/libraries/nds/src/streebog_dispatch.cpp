// Choice of the compression path for this CPU: once at start-up, from what
// CPUID reports and what the OS saves on a context switch (XGETBV).
#include <atomic>
#include <initializer_list>
#include <string>

#include "gost_paths.h"
#include "streebog_compress.h"

#if NDS_HAVE_AVX_IMPL || NDS_HAVE_GFNI_IMPL
#include <cpuid.h>
#endif

namespace nds::gost {
namespace {

#if NDS_HAVE_AVX_IMPL || NDS_HAVE_GFNI_IMPL
struct Feature {
    const char* name;
    unsigned leaf;
    int reg;  // 1 ebx, 2 ecx
    unsigned bit;
};

// XCR0 bits: SSE, AVX, opmask, upper halves of ZMM0-15, ZMM16-31.
constexpr unsigned long long kXcrAvx = 0x6;
constexpr unsigned long long kXcrAvx512 = 0xE6;

unsigned long long Xcr0() {
    unsigned lo = 0;
    unsigned hi = 0;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<unsigned long long>(hi) << 32) | lo;
}

bool Has(const Feature& f) {
    if (static_cast<unsigned>(__get_cpuid_max(0, nullptr)) < f.leaf) {
        return false;
    }
    unsigned r[4] = {};
    __cpuid_count(f.leaf, 0, r[0], r[1], r[2], r[3]);
    return ((r[f.reg] >> f.bit) & 1U) != 0;
}

// Empty when the CPU has every feature and the OS saves the state bits;
// else the reason, naming what is missing.
std::string Missing(std::initializer_list<Feature> features, unsigned long long xcr_bits) {
    std::string lacking;
    for (const Feature& f : features) {
        if (!Has(f)) {
            lacking += lacking.empty() ? "the CPU lacks " : ", ";
            lacking += f.name;
        }
    }
    if (!lacking.empty()) {
        return lacking;
    }
    if (!Has({"OSXSAVE", 1, 2, 27}) || (Xcr0() & xcr_bits) != xcr_bits) {
        return xcr_bits == kXcrAvx512 ? "the OS does not save the ZMM registers"
                                      : "the OS does not save the YMM registers";
    }
    return {};
}
#endif

// Built in place and never moved: the paths point into `reasons_`.
class Table {
public:
    Table() {
#if NDS_HAVE_GFNI_IMPL
        Add("gfni", &GfniImpl(),
            Missing({{"AVX512F", 7, 1, 16}, {"AVX512BW", 7, 1, 30}, {"AVX512VL", 7, 1, 31},
                     {"AVX512VBMI", 7, 2, 1}, {"GFNI", 7, 2, 8}},
                    kXcrAvx512));
#endif
#if NDS_HAVE_AVX_IMPL
        Add("avx", &AvxImpl(), Missing({{"AVX", 1, 2, 28}}, kXcrAvx));
#endif
        Add("portable", &PortableImpl(), {});
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    const PathList& list() const { return list_; }

private:
    void Add(const char* name, const CompressImpl* impl, std::string missing) {
        reasons_[list_.count] = std::move(missing);
        const char* why = reasons_[list_.count].empty() ? nullptr : reasons_[list_.count].c_str();
        list_.items[list_.count++] = Path{name, why, impl};
    }

    PathList list_{};
    std::string reasons_[3];
};

const CompressImpl& DefaultImpl() {
    static const CompressImpl& chosen = []() -> const CompressImpl& {
        for (std::size_t i = 0; i < Paths().count; ++i) {
            const Path& p = Paths().items[i];
            if (p.missing == nullptr) {
                return *p.impl;
            }
        }
        return PortableImpl();
    }();
    return chosen;
}

std::atomic<const CompressImpl*> forced{nullptr};

// The choice is made while the program starts, before any hash.
[[maybe_unused]] const CompressImpl& chosen_at_start = DefaultImpl();

}  // namespace

const PathList& Paths() {
    static const Table table;
    return table.list();
}

const CompressImpl& SelectedImpl() {
    const CompressImpl* f = forced.load(std::memory_order_acquire);
    return f != nullptr ? *f : DefaultImpl();
}

bool UsePath(std::string_view name) {
    for (std::size_t i = 0; i < Paths().count; ++i) {
        const Path& p = Paths().items[i];
        if (name == p.name && p.missing == nullptr) {
            forced.store(p.impl, std::memory_order_release);
            return true;
        }
    }
    return false;
}

void UseDefaultPath() { forced.store(nullptr, std::memory_order_release); }

}  // namespace nds::gost
