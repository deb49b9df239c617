// The values that property lists, JSON texts and events are made of.
//
// A Value holds nothing, a boolean, a 64-bit integer, a real, a string, bytes, a date, an array or a dictionary.
// Values copy and compare; threads may share a value that none of them changes.

#pragma once

#include "foundation/value/Date.h"

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace sentrova {

class Value;

using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;

// Values by string key, in the order in which the keys were first set. Look-ups cost one comparison a key in small
// dictionaries and a hash in large ones.
class Dictionary {
  public:
    struct Entry;

    Dictionary();
    Dictionary(std::initializer_list<Entry> entries);
    Dictionary(const Dictionary& other);
    Dictionary(Dictionary&& other) noexcept;
    Dictionary& operator=(const Dictionary& other);
    Dictionary& operator=(Dictionary&& other) noexcept;
    ~Dictionary();

    // The value under the key, or null. Valid until the dictionary changes.
    const Value* find(std::string_view key) const;
    // The value under the key, or an empty Value.
    const Value& operator[](std::string_view key) const;
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Stores the value under the key, replacing any earlier one.
    void set(std::string_view key, Value value);
    // Returns whether there was such a key.
    bool remove(std::string_view key);

    void reserve(std::size_t entries);
    std::size_t size() const;
    bool empty() const { return size() == 0; }
    std::vector<Entry>::const_iterator begin() const;
    std::vector<Entry>::const_iterator end() const;

    // Equal keys with equal values, whatever their order.
    friend bool operator==(const Dictionary& left, const Dictionary& right);

  private:
    using Index = std::unordered_map<std::string, std::size_t>;

    std::size_t position(std::string_view key) const;

    std::vector<Entry> entries_;
    // The marks of all keys that were ever set: a key without its mark here is not there, which saves most walks.
    std::uint64_t marks_ = 0;
    // Positions by key; only for a dictionary that has outgrown walking.
    std::unique_ptr<Index> index_;
};

class Value {
  public:
    Value() = default;
    Value(std::nullptr_t) {}                // NOLINT(google-explicit-constructor)
    Value(bool value) : content_(value) {}  // NOLINT(google-explicit-constructor)
    template <std::integral T>
        requires(!std::same_as<T, bool>)
    Value(T value) : content_(static_cast<std::int64_t>(value)) {}   // NOLINT(google-explicit-constructor)
    Value(double value) : content_(value) {}                         // NOLINT(google-explicit-constructor)
    Value(std::string value) : content_(std::move(value)) {}         // NOLINT(google-explicit-constructor)
    Value(std::string_view value) : content_(std::string(value)) {}  // NOLINT(google-explicit-constructor)
    Value(const char* value) : content_(std::string(value)) {}       // NOLINT(google-explicit-constructor)
    Value(Data value) : content_(std::move(value)) {}                // NOLINT(google-explicit-constructor)
    Value(Date value) : content_(value) {}                           // NOLINT(google-explicit-constructor)
    Value(Array value) : content_(std::move(value)) {}               // NOLINT(google-explicit-constructor)
    Value(Dictionary value) : content_(std::move(value)) {}          // NOLINT(google-explicit-constructor)

    bool isNull() const { return std::holds_alternative<std::monostate>(content_); }

    // The content, or null when the value is of another kind.
    const bool* boolean() const { return std::get_if<bool>(&content_); }
    const std::int64_t* integer() const { return std::get_if<std::int64_t>(&content_); }
    const double* real() const { return std::get_if<double>(&content_); }
    const std::string* string() const { return std::get_if<std::string>(&content_); }
    const Data* data() const { return std::get_if<Data>(&content_); }
    const Date* date() const { return std::get_if<Date>(&content_); }
    const Array* array() const { return std::get_if<Array>(&content_); }
    const Dictionary* dictionary() const { return std::get_if<Dictionary>(&content_); }
    Array* array() { return std::get_if<Array>(&content_); }
    Dictionary* dictionary() { return std::get_if<Dictionary>(&content_); }

    bool isNumber() const { return boolean() || integer() || real(); }

    // Numbers out of what is stored, by the platform's rules: a string gives the number it begins with (after blanks),
    // out-of-range values the nearest one in range, everything that is neither number nor string 0.
    std::int64_t integerValue() const;
    std::int32_t intValue() const;
    double doubleValue() const;
    // A number unequal to 0; a string whose first character, after blanks, a sign and zeros, is one of tTyY1-9.
    bool boolValue() const;

    // The text that the value has inside a message: a string as it is, a number in decimal, "(null)" for nothing,
    // containers in the bracketed style of property lists.
    std::string description() const;

    // Numbers compare by their value, whatever their kind: true equals 1 and 1.0.
    friend bool operator==(const Value& left, const Value& right);

  private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary> content_;
};

struct Dictionary::Entry {
    std::string key;
    Value value;
};

}  // namespace sentrova
