#include "operations/TaskRegistry.h"

#include "foundation/Mutex.h"

#include <map>
#include <string>

namespace sentrova {

namespace {

struct Registry {
    Mutex mutex;
    std::map<std::string, std::map<std::string, TaskRegistry::Run, std::less<>>, std::less<>> classes GUARDED_BY(mutex);
};

// Made by the first registration, wherever that stands in the order of initialisation.
Registry& registry() {
    static Registry theRegistry;
    return theRegistry;
}

}  // namespace

TaskRegistry::Registration::Registration(std::string_view className, std::string_view selector, Run run) {
    auto& known = registry();
    MutexLock lock(known.mutex);
    known.classes[std::string(className)].insert_or_assign(std::string(selector), std::move(run));
}

TaskRegistry::Outcome TaskRegistry::run(std::string_view className, std::string_view selector) {
    Run run;
    {
        auto& known = registry();
        MutexLock lock(known.mutex);
        const auto methods = known.classes.find(className);
        if (methods == known.classes.end()) {
            return Outcome::unknownClass;
        }
        const auto method = methods->second.find(selector);
        if (method == methods->second.end()) {
            return Outcome::unknownMethod;
        }
        run = method->second;
    }
    run();
    return Outcome::ran;
}

}  // namespace sentrova
