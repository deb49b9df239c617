#include "foundation/formats/PropertyList.h"

#include "foundation/formats/Base64.h"
#include "foundation/formats/BinaryPropertyList.h"
#include "foundation/formats/FormatError.h"
#include "foundation/formats/XmlEncoding.h"
#include "foundation/formats/XmlPropertyListReader.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

// The platform's error codes for unreadable bytes and for a value that cannot be written.
constexpr std::int64_t kReadCorrupt = 3840;
constexpr std::int64_t kWriteInvalid = 3851;

// U+FFFE and U+FFFF in UTF-8: XML excludes these two, beside control characters and surrogates.
constexpr std::string_view kNoncharacterFFFE = "\xEF\xBF\xBE";
constexpr std::string_view kNoncharacterFFFF = "\xEF\xBF\xBF";

// Appends values to one growing text. Its functions return false if a value cannot be written; refusal() then says why.
class XmlWriter {
  public:
    bool writeDocument(const Value& root) {
        text_ =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n";
        const bool written = write(root, 0);
        text_ += "</plist>\n";
        return written;
    }

    Data take() const { return {text_.begin(), text_.end()}; }

    // The reason and the position: "a null value at .users[2].name".
    std::string refusal() const { return where_.empty() ? why_ : fmt::format("{} at {}", why_, where_); }

  private:
    bool write(const Value& value, std::size_t depth) {
        if (text_.size() > PropertyList::kMaximumBytes) {
            return refuse(fmt::format("more than {} bytes", PropertyList::kMaximumBytes));
        }
        if (const auto* array = value.array()) {
            return writeArray(*array, depth);
        }
        if (const auto* dictionary = value.dictionary()) {
            return writeDictionary(*dictionary, depth);
        }
        indent(depth);
        if (const auto* string = value.string()) {
            return writeText("string", *string);
        }
        if (const auto* boolean = value.boolean()) {
            text_ += *boolean ? "<true/>\n" : "<false/>\n";
        } else if (const auto* integer = value.integer()) {
            writeLine("integer", fmt::format("{}", *integer));
        } else if (const auto* real = value.real()) {
            writeLine("real", realText(*real));
        } else if (const auto* data = value.data()) {
            writeData(*data, depth);
        } else if (const auto* date = value.date()) {
            return writeDate(*date);
        } else {
            return refuse("a null value");
        }
        return true;
    }

    bool writeArray(const Array& array, std::size_t depth) {
        return writeContainer("array", array.empty(), depth, [&] {
            for (std::size_t i = 0; i < array.size(); ++i) {
                if (!write(array[i], depth + 1)) {
                    where_.insert(0, fmt::format("[{}]", i));
                    return false;
                }
            }
            return true;
        });
    }

    bool writeDictionary(const Dictionary& dictionary, std::size_t depth) {
        return writeContainer("dict", dictionary.empty(), depth, [&] {
            for (const auto& [key, value] : dictionary) {
                indent(depth + 1);
                if (!writeText("key", key) || !write(value, depth + 1)) {
                    where_.insert(0, "." + excerpt(key));
                    return false;
                }
            }
            return true;
        });
    }

    template <class WriteContent>
    bool writeContainer(std::string_view name, bool empty, std::size_t depth, WriteContent writeContent) {
        if (depth >= PropertyList::kMaximumDepth) {
            return refuse("nested too deep");
        }
        indent(depth);
        if (empty) {
            fmt::format_to(std::back_inserter(text_), "<{}/>\n", name);
            return true;
        }
        fmt::format_to(std::back_inserter(text_), "<{}>\n", name);
        const bool written = writeContent();
        indent(depth);
        fmt::format_to(std::back_inserter(text_), "</{}>\n", name);
        return written;
    }

    bool writeText(std::string_view element, std::string_view text) {
        if (!isValidUtf8(text)) {
            return refuse("text that is not UTF-8");
        }
        fmt::format_to(std::back_inserter(text_), "<{}>", element);
        for (const char c : text) {
            switch (c) {
                case '<':
                    text_ += "&lt;";
                    break;
                case '>':
                    text_ += "&gt;";
                    break;
                case '&':
                    text_ += "&amp;";
                    break;
                case '\r':
                    // XML readers turn a literal carriage return into a line feed.
                    text_ += "&#13;";
                    break;
                default:
                    if (isForbiddenInXml(c)) {
                        return refuse("text with control characters");
                    }
                    text_ += c;
            }
        }
        fmt::format_to(std::back_inserter(text_), "</{}>\n", element);
        return true;
    }

    void writeLine(std::string_view element, std::string_view content) {
        fmt::format_to(std::back_inserter(text_), "<{0}>{1}</{0}>\n", element, content);
    }

    static std::string realText(double real) {
        if (std::isinf(real)) {
            return real > 0 ? "+infinity" : "-infinity";
        }
        return std::isnan(real) ? "nan" : fmt::format("{}", real);
    }

    bool writeDate(Date date) {
        // Splits seconds and not nanoseconds: midnight before the earliest date would be out of range.
        const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
        const auto day = std::chrono::floor<std::chrono::days>(seconds);
        const std::chrono::year_month_day calendar(day);
        if (calendar.year() < std::chrono::year(0) || calendar.year() > std::chrono::year(9999)) {
            return refuse("a date whose year does not have four digits");
        }
        const std::chrono::hh_mm_ss time(seconds - day);
        writeLine("date", fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(calendar.year()),
                                      static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                                      time.hours().count(), time.minutes().count(), time.seconds().count()));
        return true;
    }

    void writeData(const Data& data, std::size_t depth) {
        // A multiple of three, so that only the last line is padded.
        constexpr std::size_t kBytesInLine = 57;
        text_ += "<data>\n";
        for (std::size_t at = 0; at < data.size(); at += kBytesInLine) {
            const auto size = std::min(kBytesInLine, data.size() - at);
            indent(depth);
            text_ += toBase64(std::span(data).subspan(at, size));
            text_ += '\n';
        }
        indent(depth);
        text_ += "</data>\n";
    }

    void indent(std::size_t depth) { text_.append(depth, '\t'); }

    bool refuse(std::string_view why) {
        why_ = why;
        return false;
    }

    std::string text_;
    std::string where_;
    std::string why_;
};

Value readXml(std::span<const std::uint8_t> bytes, const Encodings* encodings) {
    const auto decoded = decodeXml(bytes, encodings);
    try {
        return XmlPropertyListReader(decoded.text).read();
    } catch (const FormatError&) {
        if (!decoded.brokenEncoding) {
            throw;
        }
        // The list looks incomplete only because the conversion stopped early.
        throw FormatError(fmt::format("Not a property list: it is not valid {}", excerpt(*decoded.brokenEncoding)));
    }
}

}  // namespace

Result<Value> PropertyList::parse(std::span<const std::uint8_t> bytes, const Encodings* encodings) {
    try {
        if (bytes.empty() || bytes.size() > kMaximumBytes) {
            throw FormatError(bytes.empty() ? "Property list is empty"
                                            : fmt::format("Property list is longer than {} bytes", kMaximumBytes));
        }
        if (BinaryPropertyList::recognizes(bytes)) {
            BinaryPropertyList list(bytes);
            return list.value(list.root());
        }
        return readXml(bytes, encodings);
    } catch (const FormatError& error) {
        return Error{kCocoaErrorDomain, kReadCorrupt, error.what()};
    }
}

bool PropertyList::isXmlText(std::string_view text) {
    return isValidUtf8(text) && std::ranges::none_of(text, isForbiddenInXml) &&
           text.find(kNoncharacterFFFE) == std::string_view::npos &&
           text.find(kNoncharacterFFFF) == std::string_view::npos;
}

Result<Data> PropertyList::writeXml(const Value& value) {
    XmlWriter writer;
    if (!writer.writeDocument(value)) {
        return Error{kCocoaErrorDomain, kWriteInvalid, "Cannot be written as a property list: " + writer.refusal()};
    }
    return writer.take();
}

}  // namespace sentrova
