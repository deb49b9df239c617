#include "control/JsonOutput.h"

#include "foundation/formats/Json.h"

#include <stdexcept>

namespace sentrova::control {

void printJson(Console& console, const Value& value) {
    const auto text = Json::write(value);
    if (!text) {
        throw std::runtime_error(text.error().description);
    }
    console.print(*text + "\n");
}

}  // namespace sentrova::control
