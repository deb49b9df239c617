#include "foundation/formats/KeyedArchive.h"

#include "foundation/formats/BinaryPropertyList.h"
#include "foundation/formats/BinaryPropertyListWriter.h"
#include "foundation/formats/FormatError.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace sentrova {

namespace {

// The platform's error codes for an unreadable archive and for an object that cannot be archived.
constexpr std::int64_t kReadCorrupt = 4864;
constexpr std::int64_t kWriteInvalid = 4866;

constexpr std::string_view kArchiver = "NSKeyedArchiver";
constexpr std::int64_t kVersion = 100000;

// The first object in "$objects" stands for null, the second one is the root.
constexpr std::uint32_t kNullIndex = 0;
constexpr std::uint32_t kRootIndex = 1;

class Archiver {
  public:
    using Number = BinaryPropertyListWriter::Number;

    Data archive(const KeyedArchive::Content& content) {
        table_.push_back(list_.addText("$null"));
        // Reserves the root's place. The root is written last, because it contains all other objects.
        table_.push_back(0);
        std::vector<Number> keys;
        std::vector<Number> entries;
        for (const auto& [key, entry] : content) {
            keys.push_back(addToTable(list_.addInteger(key)));
            try {
                entries.push_back(addToTable(archivedEntry(entry)));
            } catch (const FormatError& error) {
                throw FormatError(fmt::format("Entry {}: {}", key, error.what()));
            }
        }
        table_[kRootIndex] = archivedDictionary(keys, entries);

        const auto top = list_.addDictionary({{text("root"), list_.addUid(kRootIndex)}});
        const auto archiver = text(kArchiver);
        const auto version = list_.addInteger(kVersion);
        const auto objects = list_.addArray(table_);
        return list_.finish(list_.addDictionary({{text("$version"), version},
                                                 {text("$archiver"), archiver},
                                                 {text("$top"), top},
                                                 {text("$objects"), objects}}));
    }

  private:
    Number archivedEntry(const Dictionary& entry) {
        std::vector<Number> keys;
        std::vector<Number> values;
        for (const auto& [key, value] : entry) {
            keys.push_back(sharedText(key));
            values.push_back(archivedValue(key, value));
        }
        return archivedDictionary(keys, values);
    }

    // A reference to the value.
    Number archivedValue(std::string_view key, const Value& value) {
        if (const auto* string = value.string()) {
            return sharedText(*string);
        }
        if (const auto* boolean = value.boolean()) {
            return addToTable(list_.addBoolean(*boolean));
        }
        if (const auto* integer = value.integer()) {
            return addToTable(list_.addInteger(*integer));
        }
        if (const auto* real = value.real()) {
            return addToTable(list_.addReal(*real));
        }
        throw FormatError(fmt::format("\"{}\" is neither text nor a number", key));
    }

    Number archivedDictionary(const std::vector<Number>& keys, const std::vector<Number>& values) {
        const auto keysList = list_.addArray(keys);
        const auto valuesList = list_.addArray(values);
        return list_.addDictionary(
            {{text("NS.keys"), keysList}, {text("NS.objects"), valuesList}, {text("$class"), classReference()}});
    }

    // A reference to the class description that all dictionaries here share.
    Number classReference() {
        if (!class_) {
            const auto name = text("NSMutableDictionary");
            const auto ancestry = list_.addArray({name, text("NSDictionary"), text("NSObject")});
            class_ = addToTable(list_.addDictionary({{text("$classname"), name}, {text("$classes"), ancestry}}));
        }
        return *class_;
    }

    // A reference to the archived text. Equal texts are archived once.
    Number sharedText(const std::string& string) {
        if (const auto known = sharedTexts_.find(string); known != sharedTexts_.end()) {
            return known->second;
        }
        if (!isValidUtf8(string)) {
            throw FormatError(fmt::format("\"{}\" is not UTF-8", excerpt(string)));
        }
        const auto reference = addToTable(list_.addText(string));
        sharedTexts_.emplace(string, reference);
        return reference;
    }

    // The number of a text that belongs to the format itself and so is not in "$objects".
    Number text(std::string_view string) {
        const auto known = texts_.find(string);
        return known != texts_.end() ? known->second : texts_.emplace(string, list_.addText(string)).first->second;
    }

    // Appends the object to "$objects" and returns a reference to it.
    Number addToTable(Number object) {
        table_.push_back(object);
        return list_.addUid(static_cast<std::uint32_t>(table_.size() - 1));
    }

    BinaryPropertyListWriter list_;
    std::vector<Number> table_;
    std::unordered_map<std::string, Number> sharedTexts_;
    std::map<std::string, Number, std::less<>> texts_;
    std::optional<Number> class_;
};

class Unarchiver {
  public:
    using Object = BinaryPropertyList::Object;
    using Number = BinaryPropertyList::Number;

    explicit Unarchiver(std::span<const std::uint8_t> bytes) : list_(bytes) {}

    KeyedArchive::Content unarchive() {
        const auto root = fields(list_.root());
        if (list_.object(field(root, "$archiver")).value != Value(kArchiver) ||
            list_.object(field(root, "$version")).value != Value(kVersion)) {
            throw FormatError("Not a keyed archive of a known version");
        }
        table_ = list_.object(field(root, "$objects"));
        if (table_.kind != Object::Kind::array) {
            throw FormatError("Keyed archive has no table of objects");
        }
        KeyedArchive::Content content;
        const auto archived = dictionary(referred(field(fields(field(root, "$top")), "root")));
        for (std::size_t i = 0; i < archived.keys.count; ++i) {
            const auto key = list_.object(referred(list_.element(archived.keys, i)));
            if (!key.value.integer()) {
                throw FormatError("Keyed archive has a key that is not a whole number");
            }
            content[*key.value.integer()] = entry(referred(list_.element(archived.objects, i)));
        }
        return content;
    }

  private:
    using Fields = std::map<std::string, Number, std::less<>>;

    struct ArchivedDictionary {
        Object keys;
        Object objects;
    };

    // Archived objects have only a few fields.
    static constexpr std::size_t kMaximumFields = 16;

    Fields fields(Number number) { return fields(list_.object(number)); }

    Fields fields(const Object& object) {
        if (object.kind != Object::Kind::dictionary || object.count > kMaximumFields) {
            throw FormatError("Keyed archive has an object without fields");
        }
        Fields fields;
        for (std::size_t i = 0; i < object.count; ++i) {
            const auto name = list_.object(list_.key(object, i));
            if (!name.value.string()) {
                throw FormatError("Keyed archive has a field without a name");
            }
            fields.insert_or_assign(*name.value.string(), list_.entry(object, i));
        }
        return fields;
    }

    static Number field(const Fields& fields, std::string_view name) {
        const auto found = fields.find(name);
        if (found == fields.end()) {
            throw FormatError(fmt::format("Keyed archive has an object without \"{}\"", name));
        }
        return found->second;
    }

    // The number of the object that a reference points to.
    Number referred(Number reference) {
        const auto uid = list_.object(reference);
        if (uid.kind != Object::Kind::uid || uid.uid >= table_.count || uid.uid == kNullIndex) {
            throw FormatError("Keyed archive has a reference to a missing object");
        }
        return list_.element(table_, static_cast<std::size_t>(uid.uid));
    }

    ArchivedDictionary dictionary(Number number) {
        const auto archived = fields(number);
        requireClass(archived, {"NSDictionary", "NSMutableDictionary"});
        ArchivedDictionary dictionary{list_.object(field(archived, "NS.keys")),
                                      list_.object(field(archived, "NS.objects"))};
        if (dictionary.keys.kind != Object::Kind::array || dictionary.objects.kind != Object::Kind::array ||
            dictionary.keys.count != dictionary.objects.count) {
            throw FormatError("Keyed archive has a dictionary whose keys and values do not match");
        }
        return dictionary;
    }

    Dictionary entry(Number number) {
        const auto archived = dictionary(number);
        Dictionary entry;
        entry.reserve(archived.keys.count);
        for (std::size_t i = 0; i < archived.keys.count; ++i) {
            const auto key = value(referred(list_.element(archived.keys, i)));
            if (!key.string()) {
                throw FormatError("Keyed archive has an entry with a key that is not text");
            }
            entry.set(*key.string(), value(referred(list_.element(archived.objects, i))));
        }
        return entry;
    }

    // A text or a number. A text is stored directly, or as an archived object of a string class.
    Value value(Number number) {
        auto object = list_.object(number);
        if (object.kind == Object::Kind::dictionary) {
            const auto archived = fields(object);
            requireClass(archived, {"NSString", "NSMutableString"});
            object = list_.object(field(archived, "NS.string"));
        }
        if (!object.value.string() && !object.value.isNumber()) {
            throw FormatError("Keyed archive has a value that is neither text nor a number");
        }
        return std::move(object.value);
    }

    void requireClass(const Fields& archived, const std::array<std::string_view, 2>& accepted) {
        const auto number = referred(field(archived, "$class"));
        auto known = classNames_.find(number);
        if (known == classNames_.end()) {
            const auto name = list_.object(field(fields(number), "$classname"));
            known = classNames_.emplace(number, name.value.description()).first;
        }
        if (std::ranges::find(accepted, known->second) == accepted.end()) {
            throw FormatError(
                fmt::format("Keyed archive has a \"{}\" where a {} belongs", excerpt(known->second), accepted.front()));
        }
    }

    BinaryPropertyList list_;
    Object table_;
    std::unordered_map<Number, std::string> classNames_;
};

}  // namespace

Result<Data> KeyedArchive::archive(const Content& content) {
    try {
        return Archiver().archive(content);
    } catch (const FormatError& error) {
        return Error{kCocoaErrorDomain, kWriteInvalid, error.what()};
    }
}

Result<KeyedArchive::Content> KeyedArchive::unarchive(std::span<const std::uint8_t> bytes) {
    try {
        if (bytes.size() > PropertyList::kMaximumBytes) {
            throw FormatError(fmt::format("Keyed archive is longer than {} bytes", PropertyList::kMaximumBytes));
        }
        return Unarchiver(bytes).unarchive();
    } catch (const FormatError& error) {
        return Error{kCocoaErrorDomain, kReadCorrupt, error.what()};
    }
}

}  // namespace sentrova
