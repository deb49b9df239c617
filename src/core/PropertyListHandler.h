// One property-list dictionary and the file it came from. All `.plist` files of the agent are read and written through
// it.
//
// It never raises: a failure becomes an empty dictionary, an empty value or false. Used by one thread at a time; every
// user makes its own. Files are replaced whole, so of two writers the later one wins.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

// Held over each change of a property list. The agent has one, published as the Current one.
class PropertyListLock {
  public:
    void exclusively(const std::function<void()>& step) EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        step();
    }

  private:
    Mutex mutex_{LockRank::file};
};

class PropertyListHandler {
  public:
    // An empty dictionary of no file, which takes changes.
    PropertyListHandler();

    // What a file or bytes gave cannot be changed until updateDictionary has replaced it; a missing or unreadable
    // source gives an empty dictionary that can. Absent bytes give none at all.
    static PropertyListHandler initWithFile(const std::string& path);
    static PropertyListHandler initWithData(std::optional<std::span<const std::uint8_t>> bytes);

    // Runs the step while no change and no other step of this process does. A step makes no change and runs no step.
    static void exclusively(const std::function<void()>& step);

    // Reads the file, sets the key (an empty value removes it) and writes the file back, as one step that no other
    // change of the process comes between. Returns what WriteToProplist does.
    static bool change(const std::string& path, std::string_view key, const Value& value);
    // The same for any number of keys.
    static bool change(const std::string& path, const std::function<void(Dictionary&)>& edit);
    // Makes the dictionary the file's whole content, even of a file that cannot be read, as one such step. Returns
    // whether the file holds it now.
    static bool replace(const std::string& path, Dictionary content);

    // The stored value; empty when there is none.
    Value GetValueForKey(std::string_view key) const;
    // An empty value removes the key. False when the dictionary cannot be changed.
    bool SetValueForKey(std::string_view key, const Value& value);
    // Holds a copy that can be changed.
    void updateDictionary(Dictionary dictionary);

    // The content came from a file or bytes and cannot be changed.
    bool isLoaded() const { return !changeable_; }
    // The file is there, but the host could not give its content.
    bool isUnread() const { return unread_; }

    // The dictionary held, null when there is none.
    const Dictionary* dictionary() const { return root_.dictionary(); }

    // Writes XML to the path, or to the file it came from. True once a write was attempted: a failed one is only
    // logged, and leaves the file as it was; isWritten tells. A damaged file is kept beside its successor, as
    // NAME.damaged, or NAME.damaged-2 and so on where that is taken.
    bool WriteToProplist(const std::optional<std::string>& path = std::nullopt);
    // Whether the last WriteToProplist stored the content.
    bool isWritten() const { return written_; }

    void PrintPlistData() const;

    // The dictionary as compact JSON in ASCII; nothing when it holds what JSON cannot carry.
    std::optional<std::string> getPlistAsJsonString() const;

    // The text that the handler has inside a message.
    std::string description() const;

  private:
    void parse(std::span<const std::uint8_t> bytes);

    Value root_ = Dictionary();
    bool changeable_ = true;
    // The file is there, but what it holds is no dictionary.
    bool damaged_ = false;
    // The file is there, but the host would not give its content.
    bool unread_ = false;
    bool written_ = false;
    std::optional<std::string> path_;
};

}  // namespace sentrova
