// A batch of events, stored as its JSON text.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace sentrova {

// The text takes a tenth of the memory of the event dictionaries. It is written when an event is added, so the
// dictionary can be freed at once. Not thread-safe.
class EventBatch {
  public:
    // `text` is the event as JSON.
    void add(const Dictionary& event, std::string_view text);

    // Completes the array and returns it. Afterwards call clear before the next add.
    const std::string& asArray() &;
    std::string asArray() &&;

    // Empties the batch and keeps its memory for the next events of a burst.
    void clear();

    std::size_t size() const { return size_; }

    // ", recorded from T to T" (seconds since 1970), so that an administrator can find the events in the trails. Empty
    // if no event has a time.
    std::string recordedWhen() const;

  private:
    std::string text_;
    std::size_t size_ = 0;
    std::int64_t first_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t last_ = std::numeric_limits<std::int64_t>::min();
};

}  // namespace sentrova
