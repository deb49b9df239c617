// What both spools ask about one of their files.

#pragma once

#include "foundation/value/Result.h"

#include <string_view>

namespace sentrova::SpoolFile {

// A cheap check: the server must not receive a text that cannot be a batch of the spool.
bool looksLikeBatch(std::string_view content);

// Whether a file could not be read because of a temporary shortage, unlike a damaged or forbidden file.
bool isShortage(const Error& error);

}  // namespace sentrova::SpoolFile
