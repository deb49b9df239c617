#include "core/PropertyListHandler.h"

#include "core/LogSource.h"
#include "core/Secrets.h"
#include "foundation/FileSystem.h"
#include "foundation/Json.h"
#include "foundation/Mutex.h"
#include "foundation/PropertyList.h"
#include "foundation/Text.h"

#include <cerrno>
#include <exception>

namespace sentrova {

namespace {

constexpr LogSource kLog("PropertyListHandler");

// The folder of configurations is reached by more than one path.
bool nameTheSameFile(const std::string& left, const std::string& right) {
    const auto leftStatus = FileSystem::shared().linkStatus(left);
    const auto rightStatus = FileSystem::shared().linkStatus(right);
    return leftStatus && rightStatus && leftStatus->identity == rightStatus->identity;
}

}  // namespace

PropertyListHandler::PropertyListHandler() = default;

PropertyListHandler PropertyListHandler::initWithFile(const std::string& path) {
    PropertyListHandler handler;
    handler.path_ = path;
    const auto bytes = FileSystem::shared().read(path);
    if (bytes) {
        handler.parse(*bytes);
    } else if (bytes.error().code != ENOENT) {
        // A symbolic link in the file's place is not followed, and has no content to lose.
        (bytes.error().code == ELOOP ? handler.damaged_ : handler.unread_) = true;
        kLog.error(__func__, "Property list {} is not read: {}", path, bytes.error().description);
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
        auto parsed = PropertyList::parse(bytes);
        if (parsed) {
            root_ = *std::move(parsed);
            changeable_ = false;
            if (!root_.dictionary()) {
                damaged_ = true;
                kLog.error(__func__, "Property list {} holds no dictionary", orNull(path_));
            }
        } else {
            damaged_ = true;
            kLog.error(__func__, "Property list {} is not read: {}", orNull(path_), parsed.error().description);
        }
    } catch (const std::exception&) {
        damaged_ = true;
        kLog.error(__func__, "Exception plist for {} is {}", orNull(path_), Value());
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
    static Mutex oneAtATime(LockRank::file);
    MutexLock lock(oneAtATime);
    auto handler = initWithFile(path);
    auto dictionary = handler.dictionary() ? *handler.dictionary() : Dictionary();
    edit(dictionary);
    handler.updateDictionary(std::move(dictionary));
    return handler.WriteToProplist(path);
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

bool PropertyListHandler::WriteToProplist(const std::optional<std::string>& path) {
    if (root_.isNull()) {
        return false;
    }
    const auto bytes = PropertyList::writeXml(root_);
    if (!bytes) {
        kLog.error(__func__, "Exception occurred in WriteToProplist: {}\n", bytes.error().description);
        return false;
    }
    const auto& target = path ? path : path_;
    if (!target) {
        kLog.error(__func__, "plistfilepath is not initialized properly\n");
        return false;
    }
    auto& fileSystem = FileSystem::shared();
    if (unread_ && path_ && nameTheSameFile(*target, *path_)) {
        kLog.error(__func__, "Property list {} could not be read, and so is not replaced", *target);
        return true;
    }
    const auto kept = *target + ".damaged";
    const bool replacesDamaged = damaged_ && path_ && nameTheSameFile(*target, *path_);
    if (replacesDamaged) {
        // What is in it may still be of use to a person.
        static_cast<void>(fileSystem.remove(kept));
        static_cast<void>(fileSystem.move(*target, kept));
        static_cast<void>(fileSystem.restrictToOwner(kept));
    }
    const auto written = fileSystem.writeAtomically(*target, *bytes, FileSystem::Durability::flushed);
    if (written) {
        damaged_ = false;
    } else {
        kLog.error(__func__, "WriteToProplist:failed path , {}", *target);
        kLog.error(__func__, "{}", written.error().description);
        if (replacesDamaged) {
            static_cast<void>(fileSystem.move(kept, *target));
        }
    }
    return true;
}

void PropertyListHandler::PrintPlistData() const {
    if (root_.isNull()) {
        kLog.info(__func__, "Proplist is nil, no data to print.\n");
    } else {
        kLog.info(__func__, "Proplist Data:>> {}\n", Secrets::masked(root_));
    }
}

std::optional<std::string> PropertyListHandler::getPlistAsJsonString() const {
    const auto text = Json::write(root_);
    if (!text) {
        kLog.error(__func__, "The property list {} has no form in JSON: {}", orNull(path_), text.error().description);
        return std::nullopt;
    }
    if (LogSource::isWritten(LogLevel::Debug)) {
        const auto masked = Json::write(Secrets::masked(root_));
        kLog.debug(__func__, "{}", masked ? asciiLossy(*masked) : std::string());
    }
    return asciiLossy(*text);
}

std::string PropertyListHandler::description() const {
    return Secrets::masked(root_).description();
}

}  // namespace sentrova
