// An owned reference to an object of Core Foundation, or of a framework that counts references as it does.
//
// For what functions named Create or Copy return. What a function named Get returns is not the caller's and gets no
// handle.

#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <utility>

namespace sentrova::platform {

template <class Reference>
class CoreFoundationHandle {
  public:
    CoreFoundationHandle() = default;
    explicit CoreFoundationHandle(Reference reference) : reference_(reference) {}
    CoreFoundationHandle(CoreFoundationHandle&& other) noexcept
        : reference_(std::exchange(other.reference_, nullptr)) {}
    CoreFoundationHandle& operator=(CoreFoundationHandle&& other) noexcept {
        std::swap(reference_, other.reference_);
        return *this;
    }
    CoreFoundationHandle(const CoreFoundationHandle&) = delete;
    CoreFoundationHandle& operator=(const CoreFoundationHandle&) = delete;
    ~CoreFoundationHandle() {
        if (reference_) {
            ::CFRelease(reference_);
        }
    }

    explicit operator bool() const { return reference_ != nullptr; }
    Reference get() const { return reference_; }

    // For the one call of a function that answers through an argument; the handle is empty before it.
    Reference* receive() { return &reference_; }

  private:
    Reference reference_ = nullptr;
};

}  // namespace sentrova::platform
