// What the task list can run: methods by the names of their class and themselves.
//
// Each class that offers one registers it where it is defined. Safe from any thread.

#pragma once

#include <functional>
#include <string_view>

namespace sentrova {

class TaskRegistry {
  public:
    TaskRegistry() = delete;

    // Makes a new object of the class and calls the method on it.
    using Run = std::function<void()>;

    enum class Outcome { ran, unknownClass, unknownMethod };

    static Outcome run(std::string_view className, std::string_view selector);

    // A static object of this type registers a method before the program's entry.
    class Registration {
      public:
        Registration(std::string_view className, std::string_view selector, Run run);
    };
};

}  // namespace sentrova
