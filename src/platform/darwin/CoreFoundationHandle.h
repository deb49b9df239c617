// Owns a reference to an object of Core Foundation, or of a framework with the same reference counting.
//
// For results of functions named Create or Copy. The result of a function named Get does not belong to the caller and
// gets no handle.

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

    // For a function that returns its result through an argument. The handle must be empty before the call.
    Reference* receive() { return &reference_; }

  private:
    Reference reference_ = nullptr;
};

}  // namespace sentrova::platform
