// Whether the system makes audit records at all, and has a device to read them from.

#pragma once

#include "foundation/Result.h"

namespace sentrova::platform {

enum class AuditState { on, off, noDevice };

// Safe from any thread.
class AuditCondition {
  public:
    virtual ~AuditCondition() = default;

    // The host's, unless a test has put its own in its place.
    static AuditCondition& shared();
    static void install(AuditCondition* condition);

    // As it is now; an error when the system does not tell.
    virtual Result<AuditState> state() = 0;

  protected:
    AuditCondition() = default;
    AuditCondition(const AuditCondition&) = default;
    AuditCondition& operator=(const AuditCondition&) = default;

  private:
    static AuditCondition& host();
};

}  // namespace sentrova::platform
