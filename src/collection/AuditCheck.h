// Logs why no audit records arrive, and which page of the docs tells the administrator what to do. Since version 14,
// macOS does not audit unless auditing is switched on, and an agent without records looks like a quiet machine.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Each call writes at most one line, at level 0; `obstacle` writes none. Safe from any thread.
class AuditCheck {
  public:
    AuditCheck() = delete;

    // Why no records can arrive, in words; nothing while the system audits.
    static std::optional<std::string> obstacle();

    // Called at the start. Writes nothing while the system audits.
    static void logState();

    // Called if the live device could not be opened, with the system's reason. Always writes a line.
    static void logFailedOpening(std::string_view reason);
};

}  // namespace sentrova
