// Writes events as text, one after another.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <memory>
#include <string>

namespace sentrova::control {

// Not thread-safe. Each function appends to the text; a writer may hold text back until a later call.
class EventWriter {
  public:
    struct TableLayout {
        // Each event's line at once. Otherwise the first lines wait, so that the columns fit them.
        bool isLive = false;
        bool withExcluded = false;
        // In columns; longer lines are cut. 0: nothing is cut.
        std::size_t width = 0;
    };

    // A line per event, as in the spool.
    static std::unique_ptr<EventWriter> json();
    // RFC 4180, with all keys that an event may have as columns.
    static std::unique_ptr<EventWriter> csv(bool withExcluded);
    // For people: see EventTable.h.
    static std::unique_ptr<EventWriter> table(const TableLayout& layout);

    virtual ~EventWriter() = default;
    EventWriter(const EventWriter&) = delete;
    EventWriter& operator=(const EventWriter&) = delete;

    // The key of the reason why a record is not reported.
    static constexpr const char* kExcluded = "Excluded";

    virtual void begin(std::string& /*text*/) {}
    // `event` holds a dictionary.
    virtual void write(const Value& event, std::string& text) = 0;
    virtual void end(std::string& /*text*/) {}

  protected:
    EventWriter() = default;
};

}  // namespace sentrova::control
