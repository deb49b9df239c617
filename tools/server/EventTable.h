// Formats events as lines of a table.

#pragma once

#include <string>
#include <string_view>

namespace sentrova::testing {

// The column names, without a line end.
std::string eventTableHeader();

// The line of one event, which is given as JSON text: local time, action, user, domain, workstation, result. A missing
// field reads "-". A text too long for its column ends in "…".
std::string eventTableLine(const std::string& event);

// Escapes, as JSON does, each character of the UTF-8 text that could affect a terminal: control characters and those
// that change the writing direction.
std::string withoutControls(std::string_view text);

}  // namespace sentrova::testing
