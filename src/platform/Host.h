// What the agent takes from outside: the host, or what a test puts in its place.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/net/UrlSession.h"
#include "foundation/time/Clock.h"
#include "foundation/time/DateLibrary.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Encodings.h"
#include "platform/AuditCondition.h"
#include "platform/AuditPipeDevice.h"
#include "platform/Directory.h"

namespace sentrova::platform {

struct Host {
    Clock& clock;
    FileSystem& files;
    UrlSession& session;
    Cryptography& cryptography;
    DateLibrary& dates;
    Encodings& encodings;
    Directory& directory;
    AuditPipeDevice& auditPipe;
    AuditCondition& auditCondition;
};

}  // namespace sentrova::platform
