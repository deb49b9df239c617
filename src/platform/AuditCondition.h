// Tells whether the system makes audit records, and has a device to read them from.

#pragma once

#include "foundation/value/Result.h"

#include <memory>

namespace sentrova::platform {

enum class AuditState { on, off, noDevice };

// Safe from any thread.
class AuditCondition {
  public:
    virtual ~AuditCondition() = default;

    // The host's implementation.
    static std::unique_ptr<AuditCondition> make();

    // The current state. Fails if the system refuses the question.
    virtual Result<AuditState> state() = 0;

  protected:
    AuditCondition() = default;
    AuditCondition(const AuditCondition&) = default;
    AuditCondition& operator=(const AuditCondition&) = default;
};

}  // namespace sentrova::platform
