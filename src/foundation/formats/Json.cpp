#include "foundation/formats/Json.h"

#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace sentrova {

namespace {

// The platform's error codes for an unreadable text and for a value that cannot be written.
constexpr std::int64_t kReadCorrupt = 3840;
constexpr std::int64_t kWriteInvalid = 3851;

Error unreadable(std::string why) {
    return {kCocoaErrorDomain, kReadCorrupt, std::move(why)};
}

// Builds a Value from the parser's callbacks, without recursion. The parser defines the names of the callbacks.
class ValueBuilder {
  public:
    explicit ValueBuilder(std::size_t depth) : maximumDepth_(depth) {}

    bool null() { return add(Value()); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(std::int64_t value) { return add(value); }
    bool number_unsigned(std::uint64_t value) {
        constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        return value <= kLargest ? add(static_cast<std::int64_t>(value)) : add(static_cast<double>(value));
    }
    bool number_float(double value, const std::string&) { return add(value); }
    bool string(std::string& value) { return add(std::move(value)); }
    bool binary(std::vector<std::uint8_t>&) { return false; }

    bool start_object(std::size_t) { return open(Dictionary()); }
    bool start_array(std::size_t) { return open(Array()); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& value) {
        open_.back().key = std::move(value);
        return true;
    }

    template <class Exception>
    bool parse_error(std::size_t position, const std::string&, const Exception& exception) {
        // Leaves out the parser's prefix, and the text that was read last, which may be a secret.
        constexpr std::size_t kLongestReason = 200;
        std::string_view reason = exception.what();
        reason = reason.substr(0, reason.find("; last read"));
        if (const auto prefix = reason.find("] "); prefix != std::string_view::npos) {
            reason.remove_prefix(prefix + 2);
        }
        failure_ = fmt::format("Not a JSON text, at byte {}: {}", position, excerpt(reason, kLongestReason));
        return false;
    }

    Value takeRoot() { return std::move(root_); }
    std::string takeFailure() { return std::move(failure_); }

  private:
    struct Open {
        Value container;
        // In a dictionary: the key of the next entry.
        std::string key;
    };

    bool open(Value container) {
        if (open_.size() >= maximumDepth_) {
            failure_ = fmt::format("JSON text is nested deeper than {}", maximumDepth_);
            return false;
        }
        open_.push_back({std::move(container), {}});
        return true;
    }

    bool close() {
        auto container = std::move(open_.back().container);
        open_.pop_back();
        if (open_.empty()) {
            root_ = std::move(container);
            return true;
        }
        return add(std::move(container));
    }

    bool add(Value value) {
        if (open_.empty()) {
            failure_ = "JSON text is neither a dictionary nor an array";
            return false;
        }
        auto& [container, key] = open_.back();
        if (auto* array = container.array()) {
            array->push_back(std::move(value));
        } else {
            container.dictionary()->set(key, std::move(value));
        }
        return true;
    }

    std::size_t maximumDepth_;
    std::vector<Open> open_;
    Value root_;
    std::string failure_;
};

// The kinds of bytes in a string that need more than copying.
constexpr std::uint8_t kEscaped = 1;
constexpr std::uint8_t kBeyondAscii = 2;
constexpr auto kByteKinds = [] {
    std::array<std::uint8_t, 256> kinds = {};
    for (std::size_t byte = 0; byte < kinds.size(); ++byte) {
        if (byte < 0x20 || byte == '"' || byte == '\\') {
            kinds[byte] = kEscaped;
        } else if (byte >= 0x80) {
            kinds[byte] = kBeyondAscii;
        }
    }
    return kinds;
}();

// Whether one of the eight bytes may need more than copying. A borrow between bytes can give a false positive, never a
// false negative.
bool anySpecial(std::uint64_t bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kHighBits = kOnes * 0x80;
    const auto quotes = (bytes ^ (kOnes * '"')) - kOnes;
    const auto backslashes = (bytes ^ (kOnes * '\\')) - kOnes;
    const auto controls = bytes - kOnes * 0x20;
    return ((quotes | backslashes | controls | bytes) & kHighBits) != 0;
}

// Looks at eight bytes at a time. The last eight may overlap the ones before.
bool isPlain(std::string_view text) {
    std::uint64_t eight = 0;
    if (text.size() < sizeof eight) {
        return false;
    }
    for (std::size_t at = 0, last = text.size() - sizeof eight;; at = std::min(at + sizeof eight, last)) {
        std::memcpy(&eight, text.data() + at, sizeof eight);
        if (anySpecial(eight)) {
            return false;
        }
        if (at == last) {
            return true;
        }
    }
}

std::uint8_t kindsOfBytes(std::string_view text) {
    std::uint8_t kinds = 0;
    if (!isPlain(text)) {
        for (const char c : text) {
            kinds |= kByteKinds[static_cast<unsigned char>(c)];
        }
    }
    return kinds;
}

// Appends values to one growing text. Its functions return false if a value cannot be written; refusal() then says why.
class Writer {
  public:
    bool writeContainer(const Value& value, std::size_t depth) {
        if (depth >= Json::Limits().depth) {
            return refuse("nested too deep");
        }
        if (const auto* array = value.array()) {
            return writeArray(*array, depth);
        }
        if (const auto* dictionary = value.dictionary()) {
            return writeDictionary(*dictionary, depth);
        }
        return refuse("neither a dictionary nor an array");
    }

    std::string text() const { return fmt::to_string(text_); }

    // The reason and the position: "text that is not UTF-8 at .users[2].name".
    std::string refusal() const { return where_.empty() ? why_ : fmt::format("{} at {}", why_, where_); }

  private:
    bool write(const Value& value, std::size_t depth) {
        if (const auto* string = value.string()) {
            return writeString(*string);
        }
        if (const auto* integer = value.integer()) {
            const fmt::format_int digits(*integer);
            append({digits.data(), digits.size()});
            return true;
        }
        if (const auto* boolean = value.boolean()) {
            append(*boolean ? "true" : "false");
            return true;
        }
        if (const auto* real = value.real()) {
            if (!std::isfinite(*real)) {
                return refuse("a number that is not finite");
            }
            fmt::format_to(std::back_inserter(text_), "{}", *real);
            return true;
        }
        if (value.isNull()) {
            append("null");
            return true;
        }
        if (value.date() || value.data()) {
            return refuse(value.date() ? "a date" : "data");
        }
        return writeContainer(value, depth);
    }

    bool writeArray(const Array& array, std::size_t depth) {
        text_.push_back('[');
        for (std::size_t i = 0; i < array.size(); ++i) {
            if (i > 0) {
                text_.push_back(',');
            }
            if (!write(array[i], depth + 1)) {
                where_.insert(0, fmt::format("[{}]", i));
                return false;
            }
        }
        text_.push_back(']');
        return true;
    }

    bool writeDictionary(const Dictionary& dictionary, std::size_t depth) {
        text_.push_back('{');
        bool first = true;
        for (const auto& [key, value] : dictionary) {
            if (!first) {
                text_.push_back(',');
            }
            first = false;
            if (!writeString(key)) {
                where_ = "." + excerpt(key);
                return false;
            }
            text_.push_back(':');
            if (!write(value, depth + 1)) {
                where_.insert(0, "." + key);
                return false;
            }
        }
        text_.push_back('}');
        return true;
    }

    bool writeString(std::string_view string) {
        const auto kinds = kindsOfBytes(string);
        if ((kinds & kBeyondAscii) != 0 && !isValidUtf8(string)) {
            return refuse("text that is not UTF-8");
        }
        if ((kinds & kEscaped) != 0) {
            appendEscaped(string);
            return true;
        }
        char* const quoted = extend(string.size() + 2);
        quoted[0] = '"';
        std::memcpy(quoted + 1, string.data(), string.size());
        quoted[string.size() + 1] = '"';
        return true;
    }

    void appendEscaped(std::string_view string) {
        // The letters of the short escapes, indexed by the control character.
        constexpr std::string_view kShort("\0\0\0\0\0\0\0\0btn\0fr", 14);
        text_.push_back('"');
        for (const char c : string) {
            const auto byte = static_cast<unsigned char>(c);
            if (kByteKinds[byte] != kEscaped) {
                text_.push_back(c);
            } else if (byte >= 0x20) {
                text_.push_back('\\');
                text_.push_back(c);
            } else if (byte < kShort.size() && kShort[byte] != '\0') {
                text_.push_back('\\');
                text_.push_back(kShort[byte]);
            } else {
                fmt::format_to(std::back_inserter(text_), "\\u{:04x}", byte);
            }
        }
        text_.push_back('"');
    }

    void append(std::string_view text) { std::memcpy(extend(text.size()), text.data(), text.size()); }

    // Makes the text longer and returns the position of the new characters.
    char* extend(std::size_t characters) {
        const auto end = text_.size();
        text_.resize(end + characters);
        return text_.data() + end;
    }

    bool refuse(std::string_view why) {
        why_ = why;
        return false;
    }

    // Large enough for most events without an allocation.
    fmt::basic_memory_buffer<char, 2048> text_;
    std::string where_;
    std::string why_;
};

}  // namespace

Result<Value> Json::parse(std::string_view text, const Limits& limits) {
    if (text.size() > limits.bytes) {
        return unreadable(fmt::format("JSON text of {} bytes is longer than {}", text.size(), limits.bytes));
    }
    ValueBuilder builder(limits.depth);
    if (!nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) {
        return unreadable(builder.takeFailure());
    }
    return builder.takeRoot();
}

Result<std::string> Json::write(const Value& value) {
    Writer writer;
    if (!writer.writeContainer(value, 0)) {
        return Error{kCocoaErrorDomain, kWriteInvalid, "Cannot be written as JSON: " + writer.refusal()};
    }
    return writer.text();
}

}  // namespace sentrova
