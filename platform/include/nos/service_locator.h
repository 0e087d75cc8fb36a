/* Service locator: static channels by connection name. */
#ifndef NOS_PLATFORM_SERVICE_LOCATOR_H
#define NOS_PLATFORM_SERVICE_LOCATOR_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the server side of the channel `name`. Returns its handle, or
 * INVALID_HANDLE on failure; writes the channel's riid. */
Handle ServiceLocatorRegister(const char* name, const void* reserved, uint32_t flags, uint32_t* riid);

/* Releases a channel made by ServiceLocatorRegister. */
Retcode ServiceLocatorUnregister(Handle handle);

/* Connects a client to the channel `name`; INVALID_HANDLE when nobody serves it. */
Handle ServiceLocatorConnect(const char* name);

/* The riid of the endpoint `endpointName` on a connected channel, or
 * INVALID_RIID (65535) when the server has no such endpoint. */
uint32_t ServiceLocatorGetRiid(Handle handle, const char* endpointName);

#ifdef __cplusplus
}
#endif

#endif
