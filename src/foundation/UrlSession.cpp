#include "foundation/UrlSession.h"

#include <algorithm>

namespace sentrova {

void UrlRequest::setHeader(const std::string& name, const std::string& value) {
    const auto found = std::ranges::find(headers, name, &std::pair<std::string, std::string>::first);
    if (found != headers.end()) {
        found->second = value;
    } else {
        headers.emplace_back(name, value);
    }
}

}  // namespace sentrova
