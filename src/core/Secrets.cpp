#include "core/Secrets.h"

#include "core/GlobalConstants.h"
#include "foundation/formats/Json.h"

#include <string_view>

namespace sentrova {

Value Secrets::masked(const Value& value) {
    if (const auto* dictionary = value.dictionary()) {
        Dictionary copy;
        copy.reserve(dictionary->size());
        for (const auto& [key, entry] : *dictionary) {
            const bool isSecret =
                key == GlobalConstants::AGENT_AUTHENTICATION_ID || key == GlobalConstants::ORG_ACCESS_KEY;
            copy.set(key, isSecret ? Value(kMask) : masked(entry));
        }
        return copy;
    }
    if (const auto* array = value.array()) {
        Array copy;
        copy.reserve(array->size());
        for (const auto& entry : *array) {
            copy.push_back(masked(entry));
        }
        return copy;
    }
    return value;
}

Value Secrets::maskedBody(const std::optional<Data>& body) {
    if (!body) {
        return {};
    }
    const std::string_view text(reinterpret_cast<const char*>(body->data()), body->size());
    const auto names = [text](std::string_view key) { return text.find(key) != std::string_view::npos; };
    bool holdsSecret = names(GlobalConstants::AGENT_AUTHENTICATION_ID) || names(GlobalConstants::ORG_ACCESS_KEY);
    if (!holdsSecret && names("\\u")) {
        // JSON may spell a key with escapes.
        const auto parsed = Json::parse(text);
        holdsSecret = !parsed || masked(*parsed) != *parsed;
    }
    return holdsSecret ? Data(body->size(), '*') : *body;
}

}  // namespace sentrova
