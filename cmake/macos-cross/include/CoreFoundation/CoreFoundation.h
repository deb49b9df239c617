// What the agent calls of Core Foundation, declared for the cross-build check alone. A Mac build has the real header.

#pragma once

#include <stdint.h>

extern "C" {

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef uint32_t UInt32;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef UInt32 CFStringEncoding;

struct CFRange {
    CFIndex location;
    CFIndex length;
};

typedef const void* CFTypeRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFString* CFStringRef;
typedef struct __CFError* CFErrorRef;
typedef CFStringRef CFErrorDomain;

// Only its address is used.
struct CFArrayCallBacks;
extern const CFArrayCallBacks kCFTypeArrayCallBacks;

enum : CFStringEncoding { kCFStringEncodingUTF8 = 0x08000100 };

CFTypeID CFGetTypeID(CFTypeRef object);
void CFRelease(CFTypeRef object);

CFArrayRef CFArrayCreate(CFAllocatorRef allocator, const void** values, CFIndex count,
                         const CFArrayCallBacks* callBacks);
CFIndex CFArrayGetCount(CFArrayRef array);
const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);

CFStringRef CFErrorCopyDescription(CFErrorRef error);
CFIndex CFErrorGetCode(CFErrorRef error);
CFErrorDomain CFErrorGetDomain(CFErrorRef error);

CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation);
CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                         Boolean isExternalRepresentation, UInt8* buffer, CFIndex room, CFIndex* used);
CFIndex CFStringGetLength(CFStringRef string);
CFTypeID CFStringGetTypeID(void);

}  // extern "C"
