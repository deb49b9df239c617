// Events as lines for people to read.

#pragma once

#include <string>
#include <string_view>

namespace sentrova::testing {

// The columns' names, without a line end.
std::string eventTableHeader();

// The line of an event, given as JSON text: its time in the local zone, what happened, the user, the domain, the
// workstation and the result. What the event does not have reads "-"; a text too long for its column ends in "…".
std::string eventTableLine(const std::string& event);

// The text (UTF-8) with every character that could act on a terminal written as a JSON escape: control characters and
// those that change the direction of writing.
std::string withoutControls(std::string_view text);

}  // namespace sentrova::testing
