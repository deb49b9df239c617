#include "operations/TaskRegistry.h"

namespace sentrova {

TaskRegistry::Outcome TaskRegistry::run(std::string_view className, std::string_view selector) const {
    const auto methods = classes_.find(className);
    if (methods == classes_.end()) {
        return Outcome::unknownClass;
    }
    const auto method = methods->second.find(selector);
    if (method == methods->second.end()) {
        return Outcome::unknownMethod;
    }
    method->second();
    return Outcome::ran;
}

}  // namespace sentrova
