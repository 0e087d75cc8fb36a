// Format-aware content handler: hashes a stream as it is, unless it is a
// PE32/PE32+ image, whose digest is taken with the optional header's checksum
// and the certificate-table directory entry replaced by zeros. Signing tools
// write exactly those fields when they embed a signature, so an image hashes
// the same before and after signing.
//
// Two hashers run side by side: `raw` sees the bytes as they are, `blanked`
// sees them with the excluded ranges zeroed. Until the first excluded range
// both would receive the same bytes, so only `raw` is fed and `blanked` is
// brought up to date by a clone when it is next needed (`sync`).
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "nds/nds.h"
#include "nds_internal.h"

namespace {

enum ParserState : int {
    kFinished = 0,  // failed or finalised
    kDosHeader = 1,
    kSignature = 3,
    kFileHeader = 4,
    kMagic = 5,
    kDirectoryCount = 6,
    kRestOfHeaders = 7,
    kRecognised = 8,
    kNotRecognised = 100,
};

enum Sync : int {
    kInSync = 1,
    kRawAhead = 2,
    kBlankedAhead = 3,
};

constexpr std::uint64_t kDosHeaderSize = 64;
constexpr std::uint16_t kMz = 0x5A4D;
constexpr std::uint16_t kPe32Magic = 0x10B;
constexpr std::uint16_t kPe32PlusMagic = 0x20B;
constexpr std::uint64_t kChecksumOffset = 64;  // from the optional header
constexpr std::uint64_t kCertificateEntry = 4; // index in the data directories
constexpr std::size_t kZeroPiece = 256;

struct Range {
    std::uint64_t offset;
    std::uint64_t length;
};

std::uint16_t Le16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }

std::uint32_t Le32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

// Copies the part of the chunk [pos, end) that overlaps the field
// [offset, offset + size) into `field`; true once the whole field was seen.
// Written so that offsets near 2^64 (never reached) do not wrap.
bool Collect(std::uint8_t* field, std::uint64_t offset, std::size_t size, const std::uint8_t* chunk,
             std::uint64_t pos, std::uint64_t end) {
    if (end <= offset) {
        return false;
    }
    const std::uint64_t available = end - offset;  // stream bytes from the field's start
    const std::uint64_t field_end = offset + std::min<std::uint64_t>(available, size);
    const std::uint64_t from = std::max(pos, offset);
    if (from < field_end) {
        std::memcpy(field + (from - offset), chunk + (from - pos), field_end - from);
    }
    return available >= size;
}

}  // namespace

struct NdsFormatAwareContentHandler {
    NdsHasher* raw;
    NdsHasher* blanked;
    int sync;
    std::uint64_t consumed;
    std::uint64_t parsed;
    int state;
    int format;

    Range* ranges;
    std::size_t range_count;
    std::size_t range_capacity;
    std::uint64_t ranges_end;

    std::uint8_t dos_header[kDosHeaderSize];
    std::uint8_t signature[4];
    std::uint64_t signature_offset;
    std::uint8_t file_header[20];
    std::uint64_t file_header_offset;
    std::uint8_t magic[2];
    std::uint64_t magic_offset;
    std::uint8_t directory_count[4];
    std::uint64_t directory_count_offset;
    std::uint64_t directories_offset;
    std::uint64_t headers_end;
};

namespace {

using Handler = NdsFormatAwareContentHandler;

int AddRange(Handler* h, std::uint64_t offset, std::uint64_t length) {
    if (h->range_count != 0 && offset < h->ranges_end) {
        return NDS_ERROR_ARGUMENT;
    }
    if (h->range_count == h->range_capacity) {
        const std::size_t capacity = h->range_capacity == 0 ? 4 : 2 * h->range_capacity;
        auto* grown = static_cast<Range*>(NstdcAlloc(capacity * sizeof(Range)));
        if (grown == nullptr) {
            return NDS_ERROR_ALLOCATION;
        }
        if (h->range_count != 0) {
            std::memcpy(grown, h->ranges, h->range_count * sizeof(Range));
        }
        NstdcFree(h->ranges);
        h->ranges = grown;
        h->range_capacity = capacity;
    }
    h->ranges[h->range_count++] = Range{offset, length};
    h->ranges_end = offset + length;
    return 0;
}

// Runs the parser over the chunk that starts at stream offset `pos`.
int Parse(Handler* h, const std::uint8_t* chunk, std::uint64_t pos, std::uint64_t end) {
    for (;;) {
        switch (h->state) {
            case kDosHeader: {
                if (!Collect(h->dos_header, 0, kDosHeaderSize, chunk, pos, end)) {
                    return 0;
                }
                const std::uint16_t relocations = Le16(h->dos_header + 24);
                const auto header_offset = static_cast<std::int32_t>(Le32(h->dos_header + 60));
                if (Le16(h->dos_header) != kMz || (relocations != 0 && relocations < 64) ||
                    (header_offset >= 0 && header_offset < 64) || header_offset % 4 != 0) {
                    h->state = kNotRecognised;
                    return 0;
                }
                // Widened with its sign: a negative offset lies beyond any stream.
                h->signature_offset = static_cast<std::uint64_t>(static_cast<std::int64_t>(header_offset));
                h->state = kSignature;
                break;
            }
            case kSignature: {
                if (!Collect(h->signature, h->signature_offset, sizeof(h->signature), chunk, pos, end)) {
                    return 0;
                }
                static constexpr std::uint8_t kPe[4] = {'P', 'E', 0, 0};
                if (std::memcmp(h->signature, kPe, sizeof(kPe)) != 0) {
                    h->state = kNotRecognised;
                    return 0;
                }
                h->file_header_offset = h->signature_offset + sizeof(h->signature);
                h->state = kFileHeader;
                break;
            }
            case kFileHeader: {
                if (!Collect(h->file_header, h->file_header_offset, sizeof(h->file_header), chunk, pos,
                             end)) {
                    return 0;
                }
                const std::uint16_t optional_size = Le16(h->file_header + 16);
                if (optional_size == 0) {
                    h->state = kNotRecognised;
                    return 0;
                }
                h->magic_offset = h->file_header_offset + sizeof(h->file_header);
                h->headers_end = h->magic_offset + optional_size;
                h->state = kMagic;
                break;
            }
            case kMagic: {
                if (!Collect(h->magic, h->magic_offset, sizeof(h->magic), chunk, pos, end)) {
                    return 0;
                }
                const std::uint16_t magic = Le16(h->magic);
                const std::uint64_t o = h->magic_offset;
                if (magic == kPe32Magic) {
                    h->directory_count_offset = o + 92;
                    h->directories_offset = o + 96;
                    h->format = NDS_FORMAT_PE32;
                } else if (magic == kPe32PlusMagic) {
                    h->directory_count_offset = o + 108;
                    h->directories_offset = o + 112;
                    h->format = NDS_FORMAT_PE32_PLUS;
                } else {
                    h->state = kNotRecognised;
                    return 0;
                }
                const int rc = AddRange(h, o + kChecksumOffset, 4);
                if (rc != 0) {
                    return rc;
                }
                h->state = kDirectoryCount;
                break;
            }
            case kDirectoryCount: {
                if (!Collect(h->directory_count, h->directory_count_offset, sizeof(h->directory_count),
                             chunk, pos, end)) {
                    return 0;
                }
                const std::uint64_t count = Le32(h->directory_count);
                if (h->directories_offset + 8 * count != h->headers_end) {
                    h->state = kNotRecognised;
                    return 0;
                }
                if (count > kCertificateEntry) {
                    const int rc = AddRange(h, h->directories_offset + 8 * kCertificateEntry, 8);
                    if (rc != 0) {
                        return rc;
                    }
                }
                h->state = kRestOfHeaders;
                break;
            }
            case kRestOfHeaders:
                if (end < h->headers_end) {
                    return 0;
                }
                h->state = kRecognised;
                return 0;
            default:
                return 0;
        }
    }
}

// Replaces `blanked` by a clone of `raw`.
int CatchUpBlanked(Handler* h) {
    NdsHasher* fresh = nullptr;
    const int rc = h->raw->ops->Clone(h->raw, &fresh);
    if (rc != 0) {
        return rc;
    }
    h->blanked->ops->Delete(h->blanked);
    h->blanked = fresh;
    h->sync = kInSync;
    return 0;
}

// Feeds `blanked` with the chunk at stream offset `pos`, excluded bytes as zeros.
int FeedBlanked(Handler* h, const std::uint8_t* chunk, std::uint64_t pos, std::size_t size) {
    static constexpr std::uint8_t kZeros[kZeroPiece] = {};
    NdsHasher* b = h->blanked;
    const std::uint64_t end = pos + size;
    std::uint64_t at = pos;
    for (std::size_t i = 0; i < h->range_count && at < end; ++i) {
        const Range& r = h->ranges[i];
        const std::uint64_t r_end = r.offset + r.length;
        if (r_end <= at || r.offset >= end) {
            continue;
        }
        if (r.offset > at) {
            const int rc = b->ops->Update(b, chunk + (at - pos), r.offset - at);
            if (rc != 0) {
                return rc;
            }
            at = r.offset;
        }
        for (const std::uint64_t stop = std::min(r_end, end); at < stop;) {
            const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(stop - at, kZeroPiece));
            const int rc = b->ops->Update(b, kZeros, piece);
            if (rc != 0) {
                return rc;
            }
            at += piece;
        }
    }
    return at < end ? b->ops->Update(b, chunk + (at - pos), end - at) : 0;
}

int Route(Handler* h, const std::uint8_t* chunk, std::uint64_t pos, std::size_t size) {
    if (h->state == kRecognised) {
        if (h->sync == kRawAhead) {
            const int rc = CatchUpBlanked(h);
            if (rc != 0) {
                return rc;
            }
        }
        h->sync = kBlankedAhead;
        return FeedBlanked(h, chunk, pos, size);
    }
    const bool before_ranges = h->range_count == 0 || pos + size <= h->ranges[0].offset;
    if (h->state == kNotRecognised || before_ranges) {
        h->sync = kRawAhead;
        return h->raw->ops->Update(h->raw, chunk, size);
    }
    if (h->sync != kInSync) {
        const int rc = CatchUpBlanked(h);
        if (rc != 0) {
            return rc;
        }
    }
    const int rc = h->raw->ops->Update(h->raw, chunk, size);
    return rc != 0 ? rc : FeedBlanked(h, chunk, pos, size);
}

void ClearParser(Handler* h) {
    NdsHasher* raw = h->raw;
    NdsHasher* blanked = h->blanked;
    NstdcFree(h->ranges);
    std::memset(h, 0, sizeof(*h));
    h->raw = raw;
    h->blanked = blanked;
    h->state = kDosHeader;
    h->sync = kInSync;
}

void Destroy(Handler* h) {
    if (h->raw != nullptr) {
        h->raw->ops->Delete(h->raw);
    }
    if (h->blanked != nullptr) {
        h->blanked->ops->Delete(h->blanked);
    }
    NstdcFree(h->ranges);
    std::memset(h, 0, sizeof(*h));
    NstdcFree(h);
}

Handler* StateOf(const NdsHasher* h) { return static_cast<Handler*>(h->state); }

int FaAlgorithm(const NdsHasher* h) {
    return NdsFormatAwareContentHandler_NdsHashAlgorithmIdentifier(StateOf(h));
}
int FaDigestSize(const NdsHasher* h) { return NdsFormatAwareContentHandler_GetHashDigestSize(StateOf(h)); }
int FaUpdate(NdsHasher* h, const void* data, size_t size) {
    return NdsFormatAwareContentHandler_Update(StateOf(h), data, size);
}
int FaFinalize(NdsHasher* h, void* out) {
    return NdsFormatAwareContentHandler_Finalize(StateOf(h), out,
                                                 static_cast<size_t>(FaDigestSize(h)), nullptr);
}
int FaReset(NdsHasher* h) { return NdsFormatAwareContentHandler_Reset(StateOf(h)); }

int FaClone(const NdsHasher* h, NdsHasher** out) {
    NdsHasher* copy = nds::detail::AllocHasher();
    if (copy == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    *copy = *h;
    NdsFormatAwareContentHandler* state = nullptr;
    const int rc = NdsFormatAwareContentHandler_Clone(StateOf(h), &state);
    if (rc != 0) {
        nds::detail::FreeHasher(copy);
        return rc;
    }
    copy->state = state;
    *out = copy;
    return 0;
}

int FaDelete(NdsHasher* h) {
    NdsFormatAwareContentHandler_Delete(StateOf(h));
    nds::detail::FreeHasher(h);
    return 0;
}

}  // namespace

extern "C" {

const NdsHasherVtbl ndsFormatAwareHasherVtbl = {
    FaAlgorithm, FaDigestSize, FaUpdate, FaFinalize, FaReset, FaClone, FaDelete,
};

int NdsFormatAwareHasher_Create(NdsHashAlgorithm algorithm, NdsHasher** out) {
    if (out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    NdsHasher* h = nds::detail::AllocHasher();
    if (h == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    NdsFormatAwareContentHandler* handler = nullptr;
    const int rc = NdsFormatAwareContentHandler_Create(algorithm, &handler);
    if (rc != 0) {
        nds::detail::FreeHasher(h);
        return rc;
    }
    h->ops = &ndsFormatAwareHasherVtbl;
    h->state = handler;
    h->state_size = sizeof(NdsFormatAwareContentHandler);
    h->extra = handler->raw->extra;
    h->active = 1;
    *out = h;
    return 0;
}

int NdsFormatAwareContentHandler_Create(NdsHashAlgorithm algorithm, NdsFormatAwareContentHandler** out) {
    if (out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    auto* h = static_cast<Handler*>(NstdcAlloc(sizeof(Handler)));
    if (h == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    std::memset(h, 0, sizeof(*h));
    int rc = NdsCryptoPro_CreateHasher(algorithm, &h->raw);
    if (rc == 0) {
        rc = NdsCryptoPro_CreateHasher(algorithm, &h->blanked);
    }
    if (rc != 0) {
        Destroy(h);
        return rc;
    }
    h->state = kDosHeader;
    h->sync = kInSync;
    *out = h;
    return 0;
}

int NdsFormatAwareContentHandler_Update(NdsFormatAwareContentHandler* handler, const void* data,
                                        size_t size) {
    if (handler == nullptr || (data == nullptr && size != 0)) {
        return NDS_ERROR_ARGUMENT;
    }
    if (handler->state == kFinished) {
        return NDS_ERROR_STATE;
    }
    if (size == 0) {
        return 0;
    }
    const auto* chunk = static_cast<const std::uint8_t*>(data);
    const std::uint64_t pos = handler->consumed;
    int rc = Parse(handler, chunk, pos, pos + size);
    handler->parsed = pos + size;
    if (rc == 0) {
        rc = Route(handler, chunk, pos, size);
    }
    if (rc != 0) {
        handler->state = kFinished;
        return NDS_ERROR_STATE;
    }
    handler->consumed = pos + size;
    return 0;
}

int NdsFormatAwareContentHandler_Finalize(NdsFormatAwareContentHandler* handler, void* out, size_t size,
                                          int* format_out) {
    if (handler == nullptr || out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    if (handler->state == kFinished) {
        return NDS_ERROR_STATE;
    }
    if (size != static_cast<size_t>(handler->raw->ops->GetDigestSize(handler->raw))) {
        return NDS_ERROR_ARGUMENT;
    }
    int rc = 0;
    int format = NDS_FORMAT_NONE;
    if (handler->state == kRecognised) {
        if (handler->sync == kRawAhead) {
            rc = CatchUpBlanked(handler);
        }
        if (rc == 0) {
            rc = handler->blanked->ops->Finalize(handler->blanked, out);
        }
        format = handler->format;
    } else {
        rc = handler->raw->ops->Finalize(handler->raw, out);
    }
    handler->state = kFinished;
    if (rc != 0) {
        return rc;
    }
    if (format_out != nullptr) {
        *format_out = format;
    }
    return 0;
}

int NdsFormatAwareContentHandler_Reset(NdsFormatAwareContentHandler* handler) {
    if (handler == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    int rc = handler->raw->ops->Reset(handler->raw);
    if (rc == 0) {
        rc = handler->blanked->ops->Reset(handler->blanked);
    }
    ClearParser(handler);
    if (rc != 0) {
        handler->state = kFinished;
    }
    return rc;
}

int NdsFormatAwareContentHandler_Clone(const NdsFormatAwareContentHandler* handler,
                                       NdsFormatAwareContentHandler** out) {
    if (handler == nullptr || out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    auto* h = static_cast<Handler*>(NstdcAlloc(sizeof(Handler)));
    if (h == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    *h = *handler;
    h->raw = nullptr;
    h->blanked = nullptr;
    h->ranges = nullptr;
    h->range_capacity = 0;
    int rc = handler->raw->ops->Clone(handler->raw, &h->raw);
    if (rc == 0) {
        rc = handler->blanked->ops->Clone(handler->blanked, &h->blanked);
    }
    if (rc == 0 && handler->range_count != 0) {
        h->ranges = static_cast<Range*>(NstdcAlloc(handler->range_count * sizeof(Range)));
        if (h->ranges == nullptr) {
            rc = NDS_ERROR_ALLOCATION;
        } else {
            std::memcpy(h->ranges, handler->ranges, handler->range_count * sizeof(Range));
            h->range_capacity = handler->range_count;
        }
    }
    if (rc != 0) {
        Destroy(h);
        return rc;
    }
    *out = h;
    return 0;
}

int NdsFormatAwareContentHandler_Delete(NdsFormatAwareContentHandler* handler) {
    if (handler == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    Destroy(handler);
    return 0;
}

int NdsFormatAwareContentHandler_GetHashDigestSize(const NdsFormatAwareContentHandler* handler) {
    return handler == nullptr ? 0 : handler->raw->ops->GetDigestSize(handler->raw);
}

int NdsFormatAwareContentHandler_NdsHashAlgorithmIdentifier(const NdsFormatAwareContentHandler* handler) {
    return handler == nullptr ? 0 : handler->raw->ops->GetAlgorithmIdentifier(handler->raw);
}

}  // extern "C"
