/* Synchronous IPC transport.
 *
 * A client binds a transport to a channel handle with NkNosTransport_Init and
 * makes calls; a server binds one with NkNosTransportSync_Init and receives
 * requests and sends replies. The operations are reached through the table
 * in `ops`, in this order: call, receive, reply.
 *
 * Buffer sizes: the low 23 bits of a message's size word give the size of
 * the buffer offered (receive, call's reply) or of the bytes to send (call's
 * request, reply). An arena offers [start, end) and, after a receive, its
 * current pointer marks the end of the bytes received.
 */
#ifndef NOS_PLATFORM_TRANSPORT_H
#define NOS_PLATFORM_TRANSPORT_H

#include "message.h"

#ifdef __cplusplus
extern "C" {
#endif

struct NkNosTransport;

typedef struct NkNosTransportOps {
    /* Sends the request with its arena, blocks for the reply and fills the
     * reply message and reply arena (which may be NULL when none is expected). */
    Retcode (*call)(struct NkNosTransport* t, const nk_message* req, const nk_arena* reqArena, nk_message* res,
                    nk_arena* resArena);
    /* Server: takes the next request from any client of the channel. */
    Retcode (*recv)(struct NkNosTransport* t, nk_message* req, nk_arena* reqArena);
    /* Server: answers the client whose request was received last. */
    Retcode (*reply)(struct NkNosTransport* t, const nk_message* res, const nk_arena* resArena);
} NkNosTransportOps;

typedef struct NkNosTransport {
    const NkNosTransportOps* ops;
    Handle handle;   /* the channel */
    Handle peer;     /* INVALID_HANDLE for a server transport */
    Handle sync;     /* synchronisation object of a server transport */
    uint32_t client; /* the platform's note of whom the next reply goes to */
    uint64_t reserved[2];
} NkNosTransport;

/* Binds a client transport to a channel from ServiceLocatorConnect. */
Retcode NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* options, uint32_t flags);

/* Binds a server transport to a channel from ServiceLocatorRegister or KnCmAccept. */
Retcode NkNosTransportSync_Init(NkNosTransport* t, Handle handle, Handle peer, Handle syncObject);

#ifdef __cplusplus
}
#endif

#endif
