// A batch of events, kept as the JSON text that becomes of them.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace sentrova {

// A tenth of the memory that the dictionaries of the events take, and written while the events are still at hand. For
// one thread at a time.
class EventBatch {
  public:
    // The text is the JSON of the event.
    void add(const Dictionary& event, std::string_view text);

    // The batch may be added to no more until it has been cleared.
    const std::string& asArray() &;
    std::string asArray() &&;

    // Keeps its memory for the next events of a burst.
    void clear();

    std::size_t size() const { return size_; }

    // ", recorded from T to T", by which a person finds the events in the trails again; empty when they have no times.
    std::string recordedWhen() const;

  private:
    std::string text_;
    std::size_t size_ = 0;
    std::int64_t first_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t last_ = std::numeric_limits<std::int64_t>::min();
};

}  // namespace sentrova
