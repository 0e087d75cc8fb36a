/* The whole platform API. */
#ifndef NOS_PLATFORM_H
#define NOS_PLATFORM_H

#include "kernel.h"
#include "log.h"
#include "message.h"
#include "service_locator.h"
#include "transport.h"
#include "types.h"

#endif
