// What the agent calls of SystemConfiguration, declared for the cross-build check alone. A Mac build has the real header.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

extern "C" {

typedef const struct __SCDynamicStore* SCDynamicStoreRef;

CFStringRef SCDynamicStoreCopyComputerName(SCDynamicStoreRef store, CFStringEncoding* encoding);

}  // extern "C"
