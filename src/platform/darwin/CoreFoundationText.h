// Text on its way to and from Core Foundation.

#pragma once

#include "platform/darwin/CoreFoundationHandle.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova::platform {

// Empty when the bytes are not UTF-8.
CoreFoundationHandle<CFStringRef> makeString(std::string_view text);

// As UTF-8. Nothing for null, for an object that is no string, and for a string that UTF-8 cannot carry.
std::optional<std::string> textOf(CFTypeRef object);

}  // namespace sentrova::platform
