// The names of spool files that wait for their announcement, in the order of the names, each once.
//
// A long outage fills it, so it holds the names alone: 64 bytes per file. Not safe from several threads.

#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace sentrova {

class WaitingFiles {
  public:
    void add(std::string name);
    // Replaces what waits.
    void assign(std::vector<std::string> names);
    void remove(const std::string& name);

    // The first name, which no longer waits then; nothing when none waits.
    std::optional<std::string> takeFirst();

  private:
    // Sorted. A deque: new files come in at the end, refused ones at the front.
    std::deque<std::string> names_;
};

}  // namespace sentrova
