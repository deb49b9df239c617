// A subscription to an event. Its destructor unsubscribes.

#pragma once

#include <functional>
#include <utility>

namespace sentrova {

class [[nodiscard]] Subscription {
  public:
    Subscription() = default;
    explicit Subscription(std::function<void()> unsubscribe) : unsubscribe_(std::move(unsubscribe)) {}
    Subscription(Subscription&& other) noexcept : unsubscribe_(std::exchange(other.unsubscribe_, nullptr)) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            reset();
            unsubscribe_ = std::exchange(other.unsubscribe_, nullptr);
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { reset(); }

    // Unsubscribes. A call of the observer that has begun on another thread may still be running.
    void reset() {
        if (auto unsubscribe = std::exchange(unsubscribe_, nullptr)) {
            unsubscribe();
        }
    }

    explicit operator bool() const { return unsubscribe_ != nullptr; }

  private:
    std::function<void()> unsubscribe_;
};

}  // namespace sentrova
