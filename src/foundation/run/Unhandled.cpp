#include "foundation/run/Unhandled.h"

#include "foundation/run/Current.h"

#include <exception>

namespace sentrova {

void reportException(std::string_view where, std::string_view what) noexcept {
    try {
        if (auto* const unhandled = Current<UnhandledExceptions>::orNull()) {
            unhandled->report(where, what);
        }
    } catch (...) {
        // Without memory for a log line, no report is possible.
        return;
    }
}

void reportCurrentException(std::string_view where) noexcept {
    try {
        throw;
    } catch (const std::exception& exception) {
        reportException(where, exception.what());
    } catch (...) {
        reportException(where, "an exception without a text");
    }
}

}  // namespace sentrova
