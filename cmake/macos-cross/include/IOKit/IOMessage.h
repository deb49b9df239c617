// The messages of the power management, declared for the cross-build check alone. A Mac build has the real header.

#pragma once

#include <stdint.h>

#define kIOMessageCanSystemSleep ((uint32_t)0xe0000270)
#define kIOMessageSystemWillSleep ((uint32_t)0xe0000280)
#define kIOMessageSystemHasPoweredOn ((uint32_t)0xe0000300)
