// One property-list dictionary and the file that it was read from. The agent reads and writes its `.plist` files
// through this class.
//
// A failure is logged and gives an empty dictionary, an empty value or false; nothing throws. For one thread at a time;
// each user creates a new handler. Files are replaced as a whole, so of two writers the later one wins.

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

// The lock for changes of property lists. The agent has one, published as the Current one.
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
    // An empty dictionary without a file. It can be changed.
    PropertyListHandler();

    // Loaded content cannot be changed until updateDictionary replaces it. A missing or unreadable source gives an
    // empty dictionary, which can be changed. Absent bytes give no dictionary at all.
    static PropertyListHandler initWithFile(const std::string& path);
    static PropertyListHandler initWithData(std::optional<std::span<const std::uint8_t>> bytes);

    // Runs the step while no other step and no `change` or `replace` of this process runs. A step must not call
    // `change`, `replace` or `exclusively`.
    static void exclusively(const std::function<void()>& step);

    // Reads the file, sets the key (an empty value removes it) and writes the file back, all in one exclusive step.
    // Returns the result of WriteToProplist.
    static bool change(const std::string& path, std::string_view key, const Value& value);
    // The same for any number of keys.
    static bool change(const std::string& path, const std::function<void(Dictionary&)>& edit);
    // Replaces the whole content of the file in one exclusive step, even if the file cannot be read. Returns whether
    // the file holds the dictionary now.
    static bool replace(const std::string& path, Dictionary content);

    // The value under the key; empty if there is none.
    Value GetValueForKey(std::string_view key) const;
    // An empty value removes the key. Returns false if the dictionary cannot be changed.
    bool SetValueForKey(std::string_view key, const Value& value);
    // Replaces the content. The new content can be changed.
    void updateDictionary(Dictionary dictionary);

    // Whether the content was loaded from a file or bytes and so cannot be changed.
    bool isLoaded() const { return !changeable_; }
    // Whether the file exists, but the host could not read it.
    bool isUnread() const { return unread_; }

    // The dictionary; null if there is none.
    const Dictionary* dictionary() const { return root_.dictionary(); }

    // Writes XML to the path; without a path, to the file that was read. Returns true if a write was attempted. A
    // failed write is logged and leaves the file unchanged: see isWritten. A damaged file is kept beside the new one as
    // NAME.damaged, or as NAME.damaged-2 and so on if that name is taken.
    bool WriteToProplist(const std::optional<std::string>& path = std::nullopt);
    // Whether the last WriteToProplist stored the content.
    bool isWritten() const { return written_; }

    void PrintPlistData() const;

    // The dictionary as compact JSON in ASCII. Absent if it holds a value that JSON cannot represent.
    std::optional<std::string> getPlistAsJsonString() const;

    // The content as log messages show it, with secrets masked.
    std::string description() const;

  private:
    void parse(std::span<const std::uint8_t> bytes);

    // The source file has a table of the combinations, at WriteToProplist.
    Value root_ = Dictionary();
    bool changeable_ = true;
    // The file exists, but does not hold a dictionary.
    bool damaged_ = false;
    // The file exists, but the host could not read it.
    bool unread_ = false;
    bool written_ = false;
    std::optional<std::string> path_;
};

}  // namespace sentrova
