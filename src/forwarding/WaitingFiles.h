// The sorted set of spool file names that wait for their announcement.
//
// A long outage fills it, so it stores only names: 64 bytes per file. Not thread-safe.

#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace sentrova {

class WaitingFiles {
  public:
    void add(std::string name);
    // Replaces all names.
    void assign(std::vector<std::string> names);
    void remove(const std::string& name);

    // Removes and returns the first name; nothing if empty.
    std::optional<std::string> takeFirst();

  private:
    // Sorted. A deque, because new names are added at the end and refused ones at the front.
    std::deque<std::string> names_;
};

}  // namespace sentrova
