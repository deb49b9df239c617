// What the agent calls of IOKit, declared for the cross-build check alone. A Mac build has the real header.

#pragma once

#include <dispatch/dispatch.h>
#include <mach/mach.h>
#include <stdint.h>

extern "C" {

typedef mach_port_t io_object_t;
typedef io_object_t io_connect_t;
typedef io_object_t io_service_t;
typedef kern_return_t IOReturn;
typedef struct IONotificationPort* IONotificationPortRef;
typedef void (*IOServiceInterestCallback)(void* context, io_service_t service, uint32_t type, void* argument);

io_connect_t IORegisterForSystemPower(void* context, IONotificationPortRef* port, IOServiceInterestCallback callback,
                                      io_object_t* notifier);
IOReturn IODeregisterForSystemPower(io_object_t* notifier);
IOReturn IOAllowPowerChange(io_connect_t connection, intptr_t notification);
IOReturn IOServiceClose(io_connect_t connection);
void IONotificationPortSetDispatchQueue(IONotificationPortRef port, dispatch_queue_t queue);
void IONotificationPortDestroy(IONotificationPortRef port);

}  // extern "C"
