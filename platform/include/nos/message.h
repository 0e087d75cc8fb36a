/* IPC message header and arena, with the arena store and lookup helpers.
 *
 * Every request and reply is a fixed structure that begins with nk_message.
 * Variable-size data travels in an nk_arena: three pointers over one buffer,
 * the filled part being [start, current) and the capacity [start, end).
 * Fields inside a message refer to arena data through nk_arena_desc
 * (offset from the arena start, size in bytes).
 */
#ifndef NOS_PLATFORM_MESSAGE_H
#define NOS_PLATFORM_MESSAGE_H

#include <string.h>

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Layout of the size-and-flags word (byte 4 of every message). */
#define NK_MSG_SIZE_MASK ((uint32_t)0x007FFFFFu)     /* low 23 bits: size in bytes */
#define NK_MSG_PLATFORM_MASK ((uint32_t)0x7F800000u) /* bits 23-30: the platform's */
#define NK_MSG_HANDLE_FLAG ((uint32_t)0x00800000u)   /* bit 23: carries a handle descriptor */
#define NK_MSG_ERROR_FLAG ((uint32_t)0x80000000u)    /* bit 31: error reply */

typedef struct nk_message {
    uint16_t riid;       /* interface index */
    uint16_t mid;        /* method index */
    uint32_t size;       /* size and flags, see NK_MSG_* */
    uint8_t reserved[16];
} nk_message;

typedef struct nk_arena {
    uint8_t* start;
    uint8_t* current;
    uint8_t* end;
} nk_arena;

typedef struct nk_arena_desc {
    uint32_t offset;
    uint32_t size;
} nk_arena_desc;

/* Handle descriptor carried in a message body (16 bytes). */
typedef struct nk_handle_desc {
    uint32_t handle;
    uint32_t word;
    uint64_t extra;
} nk_handle_desc;

static inline uint32_t nk_msg_size(const nk_message* m) { return m->size & NK_MSG_SIZE_MASK; }
static inline int nk_msg_is_error(const nk_message* m) { return (m->size & NK_MSG_ERROR_FLAG) != 0; }

/* Sets the size bits and clears the error bit; bits 23-30 stay as they are. */
static inline void nk_msg_set_size(nk_message* m, uint32_t size)
{
    m->size = (m->size & NK_MSG_PLATFORM_MASK) | (size & NK_MSG_SIZE_MASK);
}

static inline void nk_arena_init(nk_arena* a, void* buffer, size_t size)
{
    a->start = (uint8_t*)buffer;
    a->current = (uint8_t*)buffer;
    a->end = buffer ? (uint8_t*)buffer + size : (uint8_t*)buffer;
}

/* An arena with no room at all: start = current = end. */
static inline void nk_arena_init_empty(nk_arena* a, void* buffer) { nk_arena_init(a, buffer, 0); }

static inline void nk_arena_reset(nk_arena* a) { a->current = a->start; }
static inline size_t nk_arena_used(const nk_arena* a) { return (size_t)(a->current - a->start); }
static inline size_t nk_arena_capacity(const nk_arena* a) { return (size_t)(a->end - a->start); }

/* Reserves n bytes at the fill pointer and zeroes them. Returns the reserved
 * bytes and writes their offset, or returns NULL (arena unchanged) when the
 * arena is inconsistent, the bytes do not fit, or the offset or the size do
 * not fit 32 bits. Reserving 0 bytes succeeds and returns the fill pointer. */
static inline void* nk_arena_reserve(nk_arena* a, size_t n, uint32_t* offset)
{
    if (a == NULL || a->start == NULL || a->current < a->start || a->current > a->end)
        return NULL;
    if (n > (size_t)(a->end - a->current) || n > (size_t)UINT32_MAX)
        return NULL;
    size_t off = (size_t)(a->current - a->start);
    if (off > (size_t)UINT32_MAX)
        return NULL;
    uint8_t* p = a->current;
    a->current += n;
    if (n)
        memset(p, 0, n);
    if (offset)
        *offset = (uint32_t)off;
    return p;
}

/* Appends n bytes and fills the descriptor. Returns 0, or NK_ENOMEM when
 * they do not fit (see nk_arena_reserve); the descriptor is untouched then. */
static inline Retcode nk_arena_store(nk_arena* a, nk_arena_desc* d, const void* data, size_t n)
{
    uint32_t off = 0;
    void* p = nk_arena_reserve(a, n, &off);
    if (p == NULL)
        return NK_ENOMEM;
    if (n)
        memcpy(p, data, n);
    d->offset = off;
    d->size = (uint32_t)n;
    return NK_EOK;
}

/* Returns the bytes that a descriptor names, or NULL when they do not lie
 * wholly inside [start, end) (pointer overflow included). A size of 0 at an
 * offset inside the arena or at its end is valid. */
static inline const void* nk_arena_get(const nk_arena* a, nk_arena_desc d)
{
    if (a == NULL || a->start == NULL || a->end < a->start)
        return NULL;
    size_t cap = (size_t)(a->end - a->start);
    if ((size_t)d.offset > cap || (size_t)d.size > cap - (size_t)d.offset)
        return NULL;
    return a->start + d.offset;
}

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <cstddef>
static_assert(sizeof(nk_message) == 24, "nk_message is 24 bytes");
static_assert(offsetof(nk_message, riid) == 0 && offsetof(nk_message, mid) == 2, "nk_message ids");
static_assert(offsetof(nk_message, size) == 4 && offsetof(nk_message, reserved) == 8, "nk_message words");
static_assert(sizeof(nk_arena_desc) == 8, "arena descriptor is two 32-bit words");
static_assert(sizeof(nk_handle_desc) == 16 && offsetof(nk_handle_desc, extra) == 8, "handle descriptor");
static_assert(offsetof(nk_arena, start) == 0 && offsetof(nk_arena, current) == sizeof(void*) &&
                  offsetof(nk_arena, end) == 2 * sizeof(void*),
              "arena pointers in order");
#else
_Static_assert(sizeof(nk_message) == 24, "nk_message is 24 bytes");
_Static_assert(sizeof(nk_arena_desc) == 8, "arena descriptor is two 32-bit words");
_Static_assert(sizeof(nk_handle_desc) == 16, "handle descriptor");
#endif

#endif
