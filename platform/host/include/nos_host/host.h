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

#ifdef __cplusplus
}
#endif

#endif
