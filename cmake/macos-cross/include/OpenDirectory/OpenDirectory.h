// What the agent calls of OpenDirectory, declared for the cross-build check alone. A Mac build has the real header.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

extern "C" {

typedef struct __ODNode* ODNodeRef;
typedef struct __ODQuery* ODQueryRef;
typedef struct __ODRecord* ODRecordRef;
typedef struct __ODSession* ODSessionRef;
typedef CFStringRef ODAttributeType;
typedef CFStringRef ODRecordType;
typedef uint32_t ODMatchType;
typedef uint32_t ODNodeType;

enum : ODNodeType { kODNodeTypeAuthentication = 0x2201 };
enum : ODMatchType { kODMatchEqualTo = 0x2001 };

extern const ODAttributeType kODAttributeTypeRecordName;
extern const ODRecordType kODRecordTypeUsers;

ODNodeRef ODNodeCreateWithNodeType(CFAllocatorRef allocator, ODSessionRef session, ODNodeType type, CFErrorRef* error);
ODQueryRef ODQueryCreateWithNode(CFAllocatorRef allocator, ODNodeRef node, CFTypeRef recordTypes,
                                 ODAttributeType attribute, ODMatchType match, CFTypeRef values,
                                 CFTypeRef returnedAttributes, CFIndex limit, CFErrorRef* error);
CFArrayRef ODQueryCopyResults(ODQueryRef query, bool allowPartialResults, CFErrorRef* error);
CFArrayRef ODRecordCopyValues(ODRecordRef record, ODAttributeType attribute, CFErrorRef* error);

}  // extern "C"
