// Tells an administrator in the log why no audit records come, and which page of the docs says what to do. macOS does
// not audit unless it is told to (since version 14), and an agent that reads nothing looks like a quiet machine.

#pragma once

#include <string_view>

namespace sentrova {

// Each call writes one line of level 0, or none when there is nothing to tell. From any thread.
class AuditCheck {
  public:
    AuditCheck() = delete;

    // For the start: nothing to tell while the system audits.
    static void logState();

    // For a live device that could not be opened, with the system's reason. Always a line.
    static void logFailedOpening(std::string_view reason);
};

}  // namespace sentrova
