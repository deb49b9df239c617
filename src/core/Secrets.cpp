#include "core/Secrets.h"

#include "core/GlobalConstants.h"

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

}  // namespace sentrova
