/* Host-only calls of the platform: for tests and host tools, never for
 * system code. */
#ifndef NOS_HOST_HOST_H
#define NOS_HOST_HOST_H

#include <nos/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the endpoint table that ServiceLocatorRegister(channel, ...) will
 * publish in this process: endpoint i gets riid i. Replaces any earlier table
 * of that channel and the built-in one of the fixed channel names; count 0
 * publishes an empty table. Call it before ServiceLocatorRegister.
 * Returns NK_EINVAL for a bad channel name, a NULL or empty endpoint name, a
 * name with a blank or a control character, or count >= 65535. */
Retcode NosHostSetEndpoints(const char* channel, const char* const* names, size_t count);

/* Sets how many clients the channel `channel` of this process holds at once
 * (64 unless set); takes effect at the next ServiceLocatorRegister of the
 * channel, or the next KnCmAccept of the service of that name. A channel
 * that is full takes a new connection in place of its oldest client that
 * never sent a request, and refuses it when there is none. Returns NK_EINVAL
 * for a bad channel name or a limit of 0. */
Retcode NosHostSetConnectionLimit(const char* channel, size_t limit);

/* Lets processes running under the user id `uid` (decimal text, as given to
 * a --allow-uid option) connect to the channels and the connection manager
 * of this process, besides those of its own effective user id; every other
 * connection is closed at once. The file permissions must let them reach
 * the socket too (sockets are made with mode 0600). Returns NK_EINVAL for
 * text that is not a decimal number from 0 to 4294967294. */
Retcode NosHostAllowUid(const char* uid);

#ifdef __cplusplus
}
#endif

#endif
