#include "core/PropertyListHandler.h"

#include "core/LogSource.h"
#include "core/Secrets.h"
#include "foundation/files/FileSystem.h"
#include "foundation/formats/Json.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"

#include <cerrno>
#include <exception>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("PropertyListHandler");

// Compares files and not paths, because several paths lead to the configuration folder.
bool nameTheSameFile(const std::string& left, const std::string& right) {
    const auto leftStatus = Current<FileSystem>::get().linkStatus(left);
    const auto rightStatus = Current<FileSystem>::get().linkStatus(right);
    return leftStatus && rightStatus && leftStatus->identity == rightStatus->identity;
}

// Renames a damaged file before it is replaced, because a person may still need it. Returns the new name. After 20
// copies only the last one is overwritten: a tool that keeps installing damaged files must not fill the volume, and the
// first damaged copies are the most useful (most likely a good configuration with one wrong edit).
std::string keepDamaged(const std::string& path) {
    constexpr int kMostCopies = 20;
    auto& fileSystem = Current<FileSystem>::get();
    auto kept = path + ".damaged";
    for (int number = 2; number <= kMostCopies && fileSystem.linkStatus(kept); ++number) {
        kept = fmt::format("{}.damaged-{}", path, number);
    }
    if (fileSystem.linkStatus(kept)) {
        static_cast<void>(fileSystem.remove(kept));
    }
    static_cast<void>(fileSystem.move(path, kept));
    static_cast<void>(fileSystem.restrictToOwner(kept));
    return kept;
}

}  // namespace

PropertyListHandler::PropertyListHandler() = default;

PropertyListHandler PropertyListHandler::initWithFile(const std::string& path) {
    PropertyListHandler handler;
    handler.path_ = path;
    const auto bytes = Current<FileSystem>::get().read(path);
    if (bytes) {
        handler.parse(*bytes);
    } else if (bytes.error().code != ENOENT) {
        // A symbolic link that is not followed counts as damaged: replacing it loses no content.
        (bytes.error().code == ELOOP ? handler.damaged_ : handler.unread_) = true;
        kLog.error("Property list {} is not read: {}", path, bytes.error().description);
    }
    return handler;
}

PropertyListHandler PropertyListHandler::initWithData(std::optional<std::span<const std::uint8_t>> bytes) {
    PropertyListHandler handler;
    if (bytes) {
        handler.parse(*bytes);
    } else {
        handler.root_ = Value();
        handler.changeable_ = false;
    }
    return handler;
}

void PropertyListHandler::parse(std::span<const std::uint8_t> bytes) {
    try {
        auto parsed = PropertyList::parse(bytes, Current<Encodings>::orNull());
        if (parsed) {
            root_ = *std::move(parsed);
            changeable_ = false;
            if (!root_.dictionary()) {
                damaged_ = true;
                kLog.error("Property list {} holds no dictionary", orNull(path_));
            }
        } else {
            damaged_ = true;
            kLog.error("Property list {} is not read: {}", orNull(path_), parsed.error().description);
        }
    } catch (const std::exception&) {
        damaged_ = true;
        kLog.error("Exception plist for {} is {}", orNull(path_), Value());
    }
}

bool PropertyListHandler::change(const std::string& path, std::string_view key, const Value& value) {
    return change(path, [key, &value](Dictionary& dictionary) {
        if (value.isNull()) {
            dictionary.remove(key);
        } else {
            dictionary.set(key, value);
        }
    });
}

bool PropertyListHandler::change(const std::string& path, const std::function<void(Dictionary&)>& edit) {
    bool attempted = false;
    exclusively([&] {
        auto handler = initWithFile(path);
        auto dictionary = handler.dictionary() ? *handler.dictionary() : Dictionary();
        edit(dictionary);
        handler.updateDictionary(std::move(dictionary));
        attempted = handler.WriteToProplist(path);
    });
    return attempted;
}

bool PropertyListHandler::replace(const std::string& path, Dictionary content) {
    bool written = false;
    exclusively([&] {
        // Reads the file first, so that damaged content is kept.
        auto handler = initWithFile(path);
        handler.unread_ = false;
        handler.updateDictionary(std::move(content));
        handler.WriteToProplist(path);
        written = handler.isWritten();
    });
    return written;
}

void PropertyListHandler::exclusively(const std::function<void()>& step) {
    Current<PropertyListLock>::get().exclusively(step);
}

Value PropertyListHandler::GetValueForKey(std::string_view key) const {
    const auto* dictionary = root_.dictionary();
    return dictionary ? (*dictionary)[key] : Value();
}

bool PropertyListHandler::SetValueForKey(std::string_view key, const Value& value) {
    auto* dictionary = root_.dictionary();
    if (!dictionary || !changeable_) {
        return false;
    }
    if (value.isNull()) {
        dictionary->remove(key);
    } else {
        dictionary->set(key, value);
    }
    return true;
}

void PropertyListHandler::updateDictionary(Dictionary dictionary) {
    root_ = std::move(dictionary);
    changeable_ = true;
}

// The state after reading, by what was read:
//
//                                       root_       changeable_  damaged_  unread_
//   a dictionary                        content     no           no        no
//   another root element                content     no           yes       no
//   not a property list, or a link      empty       yes          yes       no
//   missing file                        empty       yes          no        no
//   file that the host cannot read      empty       yes          no        yes
//   initWithData without bytes          null        no           no        no
//
// updateDictionary sets root_ and changeable_. A write to the same file then depends on the state:
// - unread_: nothing is written, because the rest of the file would be lost. Returns true, but written_ is false.
//   `replace` clears unread_ first, since it replaces all content.
// - damaged_ and changeable_: the old file is first renamed to NAME.damaged, and renamed back if the write fails.
// - damaged_ only: the content is written back as it was read, so no copy is kept.
// - none of these: the file is replaced.
bool PropertyListHandler::WriteToProplist(const std::optional<std::string>& path) {
    written_ = false;
    if (root_.isNull()) {
        return false;
    }
    const auto bytes = PropertyList::writeXml(root_);
    if (!bytes) {
        kLog.error("Exception occurred in WriteToProplist: {}\n", bytes.error().description);
        return false;
    }
    const auto& target = path ? path : path_;
    if (!target) {
        kLog.error("plistfilepath is not initialized properly\n");
        return false;
    }
    auto& fileSystem = Current<FileSystem>::get();
    // A query of the files is only made where the answer matters.
    const bool ownFile = (unread_ || damaged_) && path_ && nameTheSameFile(*target, *path_);
    if (unread_ && ownFile) {
        kLog.error("Property list {} could not be read, and so is not replaced", *target);
        return true;
    }
    std::optional<std::string> kept;
    // Unchanged content that is written back replaces nothing.
    if (damaged_ && changeable_ && ownFile) {
        kept = keepDamaged(*target);
    }
    const auto written = fileSystem.writeAtomically(*target, *bytes, FileSystem::Durability::flushed);
    if (written) {
        damaged_ = damaged_ && !ownFile;
        written_ = true;
    } else {
        kLog.error("WriteToProplist:failed path , {}", *target);
        kLog.error("{}", written.error().description);
        if (kept) {
            static_cast<void>(fileSystem.move(*kept, *target));
        }
    }
    return true;
}

void PropertyListHandler::PrintPlistData() const {
    if (root_.isNull()) {
        kLog.info("Proplist is nil, no data to print.\n");
    } else {
        kLog.info("Proplist Data:>> {}\n", Secrets::masked(root_));
    }
}

std::optional<std::string> PropertyListHandler::getPlistAsJsonString() const {
    const auto text = Json::write(root_);
    if (!text) {
        kLog.error("The property list {} cannot be written as JSON: {}", orNull(path_), text.error().description);
        return std::nullopt;
    }
    if (LogSource::isWritten(LogLevel::Debug)) {
        const auto masked = Json::write(Secrets::masked(root_));
        kLog.debug("{}", masked ? asciiLossy(*masked, Current<Encodings>::get()) : std::string());
    }
    return asciiLossy(*text, Current<Encodings>::get());
}

std::string PropertyListHandler::description() const {
    return Secrets::masked(root_).description();
}

}  // namespace sentrova
