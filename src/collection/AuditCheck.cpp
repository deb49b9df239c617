#include "collection/AuditCheck.h"

#include "core/LogSource.h"
#include "foundation/run/Current.h"
#include "platform/AuditCondition.h"

#include <optional>
#include <string>

#include <fmt/format.h>

namespace sentrova {

namespace {

using platform::AuditState;

constexpr LogSource kLog("AuditCheck");

constexpr std::string_view kNoDevice =
    R"(There is no /dev/auditpipe, so no logon is reported as it happens: see "Switch auditing on" in docs/macos.md)";
constexpr std::string_view kOff =
    R"(Auditing is off on this system, so no logon is recorded: see "Switch auditing on" in docs/macos.md)";

}  // namespace

std::optional<std::string> AuditCheck::obstacle() {
    const auto state = Current<platform::AuditCondition>::get().state();
    if (!state) {
        return fmt::format(R"(The state of auditing is unknown ({}): see "Troubleshoot" in docs/macos.md)",
                           state.error().description);
    }
    switch (*state) {
        case AuditState::noDevice:
            return std::string(kNoDevice);
        case AuditState::off:
            return std::string(kOff);
        case AuditState::on:
            break;
    }
    return std::nullopt;
}

void AuditCheck::logState() {
    if (const auto text = obstacle()) {
        kLog.error("{}", *text);
    }
}

void AuditCheck::logFailedOpening(std::string_view reason) {
    if (const auto text = obstacle()) {
        kLog.error("{}", *text);
    } else {
        kLog.error(R"(Auditing is on, but /dev/auditpipe is not readable ({}): see "Troubleshoot" in )"
                   "docs/macos.md",
                   reason);
    }
}

}  // namespace sentrova
