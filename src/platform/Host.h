// The interfaces through which the agent uses its host. Tests replace them. The owner of the objects must keep them
// alive as long as the agent.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/net/UrlSession.h"
#include "foundation/run/Clock.h"
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
