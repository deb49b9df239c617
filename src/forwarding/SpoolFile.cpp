#include "forwarding/SpoolFile.h"

#include "foundation/value/Text.h"

#include <cerrno>

namespace sentrova {

bool SpoolFile::looksLikeBatch(std::string_view content) {
    return content.starts_with('[') && content.ends_with(']') && isValidUtf8(content);
}

bool SpoolFile::isShortage(const Error& error) {
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

}  // namespace sentrova
