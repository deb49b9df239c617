// Either a value or an error.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace sentrova {

// The domain names the origin of the code; the description is for the log.
struct Error {
    std::string domain;
    std::int64_t code = 0;
    std::string description;

    friend bool operator==(const Error&, const Error&) = default;
};

// The domain of error numbers of the host's C library (errno).
inline constexpr const char* kPosixErrorDomain = "NSPOSIXErrorDomain";

// The domain of the platform's own data formats: property lists, JSON and archives.
inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";

// The error for an errno value, with the host's description.
Error posixError(int number);

// The value of a call that succeeds without one.
struct Done {};

template <class T>
class [[nodiscard]] Result {
  public:
    Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}      // NOLINT(google-explicit-constructor)
    Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return content_.index() == 0; }

    // Only for a result that holds a value.
    const T& operator*() const& { return std::get<0>(content_); }
    T& operator*() & { return std::get<0>(content_); }
    T&& operator*() && { return std::get<0>(std::move(content_)); }
    const T* operator->() const { return &std::get<0>(content_); }
    T* operator->() { return &std::get<0>(content_); }

    // Only for a result that holds an error.
    const Error& error() const { return std::get<1>(content_); }

    // The value; absent for an error.
    std::optional<T> optional() && { return *this ? std::optional<T>(std::get<0>(std::move(content_))) : std::nullopt; }

  private:
    std::variant<T, Error> content_;
};

}  // namespace sentrova
