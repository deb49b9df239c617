// The values in property lists, JSON texts and events.
//
// A Value is empty or holds a boolean, a 64-bit integer, a real, a string, bytes, a date, an array or a dictionary.
// Values can be copied and compared. Threads may share a value while nobody changes it.

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

// Values by string key, in the order in which the keys were first set. Small dictionaries are searched linearly, large
// ones by hash.
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

    // The value under the key, or null. The pointer is valid until the dictionary changes.
    const Value* find(std::string_view key) const;
    // The value under the key, or an empty Value.
    const Value& operator[](std::string_view key) const;
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Stores the value under the key, replacing any earlier one.
    void set(std::string_view key, Value value);
    // Returns whether the key existed.
    bool remove(std::string_view key);

    void reserve(std::size_t entries);
    std::size_t size() const;
    bool empty() const { return size() == 0; }
    std::vector<Entry>::const_iterator begin() const;
    std::vector<Entry>::const_iterator end() const;

    // Compares keys and values; the order of the keys does not matter.
    friend bool operator==(const Dictionary& left, const Dictionary& right);

  private:
    using Index = std::unordered_map<std::string, std::size_t>;

    std::size_t position(std::string_view key) const;

    std::vector<Entry> entries_;
    // A small Bloom filter over all keys ever set. A key whose bit is 0 is not in the dictionary, which saves most
    // searches.
    std::uint64_t marks_ = 0;
    // Positions by key; null in small dictionaries.
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

    // The content; null if the value is of another kind.
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

    // The value as a number, by the Mac's rules. A string gives the number at its start, after blanks. An out-of-range
    // value gives the nearest one in range, except that intValue keeps the low 32 bits of a number. Anything but a
    // number or string gives 0.
    std::int64_t integerValue() const;
    std::int32_t intValue() const;
    double doubleValue() const;
    // True for a number other than 0, and for a string whose first character, after blanks, a sign and zeros, is one of
    // tTyY1-9.
    bool boolValue() const;

    // The value as log messages show it: a string as it is, a number in decimal, "(null)" for an empty value,
    // containers in the style of old property lists.
    std::string description() const;

    // Numbers of different kinds compare by value: true equals 1 and 1.0.
    friend bool operator==(const Value& left, const Value& right);

  private:
    std::variant<std::monostate, bool, std::int64_t, double, std::string, Data, Date, Array, Dictionary> content_;
};

struct Dictionary::Entry {
    std::string key;
    Value value;
};

}  // namespace sentrova
