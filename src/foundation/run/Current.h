// The object of a type that the running agent has, for the operations of a class that take no object.
//
// The owner of the object publishes it for as long as the object lives; nothing is made here. One agent runs in a
// process at a time.

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

    // Publishes an object, which must outlive the publication. The object that was published before comes back at the
    // end: a test may replace one for a while.
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

// An object that is published from the end of its construction to the beginning of its destruction.
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
