// What the task list can run: methods by the names of their class and themselves.

#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace sentrova {

// Constant once made, and so safe from any thread.
class TaskRegistry {
  public:
    // Makes a new object of the class and calls the method on it.
    using Run = std::function<void()>;
    // By method, by class.
    using Methods = std::map<std::string, Run, std::less<>>;
    using Classes = std::map<std::string, Methods, std::less<>>;

    explicit TaskRegistry(Classes classes) : classes_(std::move(classes)) {}

    enum class Outcome { ran, unknownClass, unknownMethod };

    Outcome run(std::string_view className, std::string_view selector) const;

  private:
    const Classes classes_;
};

}  // namespace sentrova
