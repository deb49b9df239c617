// Converts text to and from Core Foundation strings.

#pragma once

#include "platform/darwin/CoreFoundationHandle.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova::platform {

// Empty when the bytes are not UTF-8.
CoreFoundationHandle<CFStringRef> makeString(std::string_view text);

// The text in UTF-8. Absent for null, for an object that is not a string, and for a string with unpaired surrogates.
std::optional<std::string> textOf(CFTypeRef object);

}  // namespace sentrova::platform
