// The methods that the task list can run, by the names of class and method.

#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace sentrova {

// Immutable after construction, so safe from any thread.
class TaskRegistry {
  public:
    // Calls the method, on a new object of the class or on the agent's own one.
    using Run = std::function<void()>;
    // Methods by name, and their classes by name.
    using Methods = std::map<std::string, Run, std::less<>>;
    using Classes = std::map<std::string, Methods, std::less<>>;

    explicit TaskRegistry(Classes classes) : classes_(std::move(classes)) {}

    enum class Outcome { ran, unknownClass, unknownMethod };

    // Runs the method on the calling thread. An exception from the method reaches the caller.
    Outcome run(std::string_view className, std::string_view selector) const;

  private:
    const Classes classes_;
};

}  // namespace sentrova
