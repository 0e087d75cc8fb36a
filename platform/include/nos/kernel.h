/* Name server, connection manager and kernel object calls. */
#ifndef NOS_PLATFORM_KERNEL_H
#define NOS_PLATFORM_KERNEL_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Longest client or service name, NUL included, that the connection manager handles. */
#define KN_CM_NAME_MAX 256

/* Connects to the name server. `name` NULL means the default one; `msecs` -1 waits without limit. */
Retcode NsCreate(const char* name, int32_t msecs, Handle* ns);
/* Publishes / withdraws the endpoint `service` of interface type `type`; `server` NULL means this process. */
Retcode NsPublishService(Handle ns, const char* type, const char* server, const char* service);
Retcode NsUnPublishService(Handle ns, const char* type, const char* server, const char* service);

/* Waits up to `msecs` for a client's connection request to any service this
 * process published. Fills `client` and `service` (each KN_CM_NAME_MAX bytes).
 * Returns NK_CM_TIMEOUT when the time runs out. */
Retcode KnCmListen(const char* filter, uint32_t msecs, char* client, char* service);
/* Accepts the pending request of (client, service) on interface `riid`. With
 * `listener` INVALID_HANDLE a new channel is made; otherwise the connection
 * joins that channel. Writes the channel handle. */
Retcode KnCmAccept(const char* client, const char* service, uint32_t riid, Handle listener, Handle* handle);
/* Refuses the pending request of (client, service). */
Retcode KnCmDrop(const char* client, const char* service);
/* Client side: asks the publisher of `service` for a connection and waits up
 * to `msecs` for it to be accepted. Writes the channel handle and the riid
 * chosen by the server. NK_ECONNREFUSED when it was dropped. */
Retcode KnCmConnect(const char* service, uint32_t msecs, Handle* handle, uint32_t* riid);

Retcode KnIpcCreateSyncObject(Handle* handle);
Retcode KnHandleClose(Handle handle);
/* Sleeps `msecs` milliseconds. */
Retcode KnSleep(uint32_t msecs);

#ifdef __cplusplus
}
#endif

#endif
