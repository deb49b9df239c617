// The running agent's object of a type, for class-level functions that receive no object.
//
// The owner publishes the object for as long as it lives; nothing is created here. A process runs one agent at a time.
// Safe from any thread.

#pragma once

#include <atomic>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>

namespace sentrova {

template <class T>
class Current {
  public:
    Current() = delete;

    // Null while no object is published.
    static T* orNull() { return object_.load(std::memory_order_acquire); }

    // Throws std::logic_error while no object is published: the caller runs without an agent.
    static T& get() {
        if (auto* const object = orNull()) {
            return *object;
        }
        throw std::logic_error(std::string("there is no current object of type ") + typeid(T).name());
    }

    // Publishes an object, which must outlive the publication. The destructor restores the object published before, so
    // that a test can replace an object for a while.
    class Publication {
      public:
        explicit Publication(T& object) : former_(object_.exchange(&object, std::memory_order_acq_rel)) {}
        ~Publication() { object_.store(former_, std::memory_order_release); }
        Publication(const Publication&) = delete;
        Publication& operator=(const Publication&) = delete;

      private:
        T* const former_;
    };

  private:
    static inline std::atomic<T*> object_{nullptr};
};

// Owns an object and publishes it from the end of its construction until its destruction begins.
template <class T>
class Published {
  public:
    template <class... Arguments>
    explicit Published(Arguments&&... arguments) : object_(std::forward<Arguments>(arguments)...) {}

    T& operator*() { return object_; }
    T* operator->() { return &object_; }

  private:
    T object_;
    const typename Current<T>::Publication publication_{object_};
};

}  // namespace sentrova
