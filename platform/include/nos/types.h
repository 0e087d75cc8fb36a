/* Basic platform types: handles, result codes of the platform calls. */
#ifndef NOS_PLATFORM_TYPES_H
#define NOS_PLATFORM_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A kernel object handle (channel, connection, synchronisation object, name server). */
typedef uint32_t Handle;
#define INVALID_HANDLE ((Handle)0xFFFFFFFFu)

/* Runtime interface identifier of an endpoint; 0xFFFF and above name no endpoint. */
#define INVALID_RIID ((uint32_t)0xFFFFu)

/* Result of a platform call: 0 is success, anything else a failure. */
typedef int32_t Retcode;

#define NK_EOK ((Retcode)0)
/* The transport codes are negated errno-style values. */
#define NK_E2BIG ((Retcode)-7)        /* a message or arena larger than the buffer offered */
#define NK_EBADF ((Retcode)-9)        /* not a handle of the right kind */
#define NK_EAGAIN ((Retcode)-11)      /* nothing delivered, try again (a client was dropped) */
#define NK_ENOMEM ((Retcode)-12)      /* out of memory */
#define NK_ENOENT ((Retcode)-2)       /* no such name or service */
#define NK_EINVAL ((Retcode)-22)      /* a bad argument */
#define NK_EPIPE ((Retcode)-32)       /* the peer closed the connection or died */
#define NK_EPROTO ((Retcode)-71)      /* a malformed frame from the peer */
#define NK_ETIMEDOUT ((Retcode)-110)  /* the peer did not answer in time */
#define NK_ECONNREFUSED ((Retcode)-111) /* the peer refused the connection */
/* KnCmListen: the listen time-out expired with no request. */
#define NK_CM_TIMEOUT ((Retcode)0x90000014u)

#ifdef __cplusplus
}
#endif

#endif
