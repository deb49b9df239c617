#include "foundation/value/Value.h"

#include "foundation/value/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <optional>

#include <fmt/format.h>

namespace sentrova {

namespace {

// Above this many entries, a hash look-up is faster than a linear search.
constexpr std::size_t kWalkedEntries = 32;

constexpr std::size_t kNowhere = std::numeric_limits<std::size_t>::max();

const Value kNoValue;

std::string_view withoutLeadingBlanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\r\v\f"), text.size()));
    return text;
}

std::int64_t leadingInteger(std::string_view text) {
    text = withoutLeadingBlanks(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    std::uint64_t magnitude = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    if (error == std::errc::invalid_argument) {
        return 0;
    }
    const auto limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (error == std::errc::result_out_of_range || magnitude > limit) {
        return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
    }
    const auto value = static_cast<std::int64_t>(magnitude);
    return negative ? -value : value;
}

std::int64_t truncated(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    // 2^63 is exact as a double; the largest 64-bit integer is not.
    if (value >= 0x1p63) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (value < -0x1p63) {
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(value);
}

bool beginsTrue(std::string_view text) {
    text = withoutLeadingBlanks(text);
    if (text.starts_with('-') || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size()));
    return !text.empty() && std::string_view("tTyY123456789").find(text.front()) != std::string_view::npos;
}

// Appends values in the style of old property lists: { key = value; } and ( element, element ).
class Describer {
  public:
    void append(const Value& value, int depth) {
        if (const auto* array = value.array()) {
            appendArray(*array, depth);
        } else if (const auto* dictionary = value.dictionary()) {
            appendDictionary(*dictionary, depth);
        } else if (value.isNull()) {
            text_ += "\"<null>\"";
        } else if (const auto* real = value.real(); real && *real != std::trunc(*real)) {
            appendQuoted(value.description());
        } else if (value.data()) {
            text_ += value.description();
        } else {
            appendString(value.description());
        }
    }

    std::string take() { return std::move(text_); }

  private:
    void indent(int depth) { text_.append(static_cast<std::size_t>(depth) * 4, ' '); }

    void appendArray(const Array& array, int depth) {
        text_ += "(\n";
        for (std::size_t i = 0; i < array.size(); ++i) {
            indent(depth + 1);
            append(array[i], depth + 1);
            text_ += i + 1 < array.size() ? ",\n" : "\n";
        }
        indent(depth);
        text_ += ')';
    }

    void appendDictionary(const Dictionary& dictionary, int depth) {
        std::vector<const Dictionary::Entry*> entries;
        entries.reserve(dictionary.size());
        for (const auto& entry : dictionary) {
            entries.push_back(&entry);
        }
        std::ranges::sort(entries, {}, &Dictionary::Entry::key);
        text_ += "{\n";
        for (const auto* entry : entries) {
            indent(depth + 1);
            appendString(entry->key);
            text_ += " = ";
            append(entry->value, depth + 1);
            text_ += ";\n";
        }
        indent(depth);
        text_ += '}';
    }

    void appendString(const std::string& string) {
        const auto isPlain = [](unsigned char c) {
            return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        };
        if (!string.empty() && std::ranges::all_of(string, isPlain)) {
            text_ += string;
        } else {
            appendQuoted(string);
        }
    }

    void appendQuoted(const std::string& string) {
        text_ += '"';
        for (const char16_t unit : utf16(string)) {
            switch (unit) {
                case u'"':
                    text_ += "\\\"";
                    break;
                case u'\\':
                    text_ += "\\\\";
                    break;
                case u'\n':
                    text_ += "\\n";
                    break;
                case u'\t':
                    text_ += "\\t";
                    break;
                case u'\r':
                    text_ += "\\r";
                    break;
                default:
                    if (unit < 0x20 || unit == 0x7F) {
                        fmt::format_to(std::back_inserter(text_), "\\{:03o}", static_cast<unsigned>(unit));
                    } else if (unit < 0x7F) {
                        text_ += static_cast<char>(unit);
                    } else {
                        fmt::format_to(std::back_inserter(text_), "\\U{:04x}", static_cast<unsigned>(unit));
                    }
            }
        }
        text_ += '"';
    }

    std::string text_;
};

std::string describeData(const Data& data) {
    // Shortens longer data as the Mac does: to the first 16 and the last 8 bytes.
    constexpr std::size_t kHead = 16;
    constexpr std::size_t kTail = 8;
    std::string text = fmt::format("{{length = {}, bytes = 0x", data.size());
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (data.size() > kHead + kTail && i == kHead) {
            text += " ... ";
            i = data.size() - kTail;
        }
        fmt::format_to(std::back_inserter(text), "{:02x}", data[i]);
    }
    return text + "}";
}

// A hash of the key's length and two of its characters, as one of 64 bits.
std::uint64_t markOf(std::string_view key) {
    const auto character = [&](std::size_t at) -> std::size_t { return static_cast<unsigned char>(key[at]); };
    const auto mixed = key.empty() ? 0 : key.size() * 5 + character(key.size() / 2) * 3 + character(key.size() - 1);
    return std::uint64_t{1} << (mixed % 64);
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(Dictionary&& other) noexcept = default;
Dictionary& Dictionary::operator=(Dictionary&& other) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    reserve(entries.size());
    for (const auto& entry : entries) {
        set(entry.key, entry.value);
    }
}

Dictionary::Dictionary(const Dictionary& other)
    : entries_(other.entries_),
      marks_(other.marks_),
      index_(other.index_ ? std::make_unique<Index>(*other.index_) : nullptr) {}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        Dictionary copy(other);
        *this = std::move(copy);
    }
    return *this;
}

std::size_t Dictionary::position(std::string_view key) const {
    if ((marks_ & markOf(key)) == 0) {
        return kNowhere;
    }
    if (index_) {
        const auto found = index_->find(std::string(key));
        return found == index_->end() ? kNowhere : found->second;
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].key == key) {
            return i;
        }
    }
    return kNowhere;
}

const Value* Dictionary::find(std::string_view key) const {
    const auto at = position(key);
    return at == kNowhere ? nullptr : &entries_[at].value;
}

const Value& Dictionary::operator[](std::string_view key) const {
    const auto* value = find(key);
    return value ? *value : kNoValue;
}

void Dictionary::set(std::string_view key, Value value) {
    if (const auto at = position(key); at != kNowhere) {
        entries_[at].value = std::move(value);
        return;
    }
    marks_ |= markOf(key);
    entries_.push_back({std::string(key), std::move(value)});
    if (index_) {
        index_->emplace(key, entries_.size() - 1);
    } else if (entries_.size() > kWalkedEntries) {
        index_ = std::make_unique<Index>();
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            index_->emplace(entries_[i].key, i);
        }
    }
}

bool Dictionary::remove(std::string_view key) {
    const auto at = position(key);
    if (at == kNowhere) {
        return false;
    }
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(at));
    if (index_) {
        index_->erase(std::string(key));
        for (auto& [name, place] : *index_) {
            place -= place > at ? 1 : 0;
        }
    }
    return true;
}

void Dictionary::reserve(std::size_t entries) {
    entries_.reserve(entries);
}
std::size_t Dictionary::size() const {
    return entries_.size();
}
std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
    return entries_.begin();
}
std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
    return entries_.end();
}

bool operator==(const Dictionary& left, const Dictionary& right) {
    return left.size() == right.size() && std::ranges::all_of(left, [&](const auto& entry) {
               const auto* other = right.find(entry.key);
               return other && entry.value == *other;
           });
}

std::int64_t Value::integerValue() const {
    if (const auto* value = integer()) {
        return *value;
    }
    if (const auto* value = boolean()) {
        return *value ? 1 : 0;
    }
    if (const auto* value = real()) {
        return truncated(*value);
    }
    const auto* text = string();
    return text ? leadingInteger(*text) : 0;
}

std::int32_t Value::intValue() const {
    const auto value = integerValue();
    // A number is cut to its low 32 bits; a text is limited to the 32-bit range.
    if (string()) {
        return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                                  std::numeric_limits<std::int32_t>::max()));
    }
    return static_cast<std::int32_t>(value);
}

double Value::doubleValue() const {
    if (const auto* value = real()) {
        return *value;
    }
    if (const auto* text = string()) {
        return leadingReal(*text);
    }
    return static_cast<double>(integerValue());
}

bool Value::boolValue() const {
    if (const auto* text = string()) {
        return beginsTrue(*text);
    }
    if (const auto* value = real()) {
        return *value != 0.0;
    }
    return integerValue() != 0;
}

std::string Value::description() const {
    struct Describe {
        const Value& whole;

        std::string operator()(std::monostate) const { return "(null)"; }
        std::string operator()(bool value) const { return value ? "1" : "0"; }
        std::string operator()(std::int64_t value) const { return fmt::format("{}", value); }
        std::string operator()(double value) const { return fmt::format("{:.16g}", value); }
        std::string operator()(const std::string& value) const { return value; }
        std::string operator()(const Data& value) const { return describeData(value); }
        std::string operator()(Date value) const { return universalText(value); }
        std::string operator()(const Array&) const { return container(); }
        std::string operator()(const Dictionary&) const { return container(); }

        std::string container() const {
            Describer describer;
            describer.append(whole, 0);
            return describer.take();
        }
    };
    return std::visit(Describe{*this}, content_);
}

bool operator==(const Value& left, const Value& right) {
    if (left.isNumber() && right.isNumber()) {
        if (left.real() || right.real()) {
            return left.doubleValue() == right.doubleValue();
        }
        return left.integerValue() == right.integerValue();
    }
    return left.content_ == right.content_;
}

}  // namespace sentrova
