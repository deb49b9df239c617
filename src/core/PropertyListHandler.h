// One property-list dictionary and the file it came from. All `.plist` files of the agent are read and written through
// it.
//
// It never raises: a failure becomes an empty dictionary, an empty value or false. Used by one thread at a time; every
// user makes its own. Files are replaced whole, so of two writers the later one wins.

#pragma once

#include "foundation/Value.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

class PropertyListHandler {
  public:
    // An empty dictionary of no file, which takes changes.
    PropertyListHandler();

    // What a file or bytes gave cannot be changed until updateDictionary has replaced it; a missing or unreadable
    // source gives an empty dictionary that can. Absent bytes give none at all.
    static PropertyListHandler initWithFile(const std::string& path);
    static PropertyListHandler initWithData(std::optional<std::span<const std::uint8_t>> bytes);

    // Reads the file, sets the key (an empty value removes it) and writes the file back, as one step that no other
    // change of the process comes between. Returns what WriteToProplist does.
    static bool change(const std::string& path, std::string_view key, const Value& value);
    // The same for any number of keys.
    static bool change(const std::string& path, const std::function<void(Dictionary&)>& edit);

    // The stored value; empty when there is none.
    Value GetValueForKey(std::string_view key) const;
    // An empty value removes the key. False when the dictionary cannot be changed.
    bool SetValueForKey(std::string_view key, const Value& value);
    // Holds a copy that can be changed.
    void updateDictionary(Dictionary dictionary);

    // The dictionary held, null when there is none.
    const Dictionary* dictionary() const { return root_.dictionary(); }

    // Writes XML to the path, or to the file it came from. True once a write was attempted: a failed one is only
    // logged, and leaves the file as it was. A file that could not be read is kept beside its successor, as
    // NAME.damaged.
    bool WriteToProplist(const std::optional<std::string>& path = std::nullopt);

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
    std::optional<std::string> path_;
};

}  // namespace sentrova
