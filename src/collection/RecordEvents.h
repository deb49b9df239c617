// Turns audit records into events, one record after another.
//
// Not thread-safe. A record's tokens are decoded only if the record is wanted, because few are.

#pragma once

#include "collection/Event.h"
#include "collection/EventContext.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>

namespace sentrova {

class RecordEvents {
  public:
    // Whether a record of that type and time (whole seconds since 1970) is wanted. Asked once per header; a record has
    // one, unless it is damaged.
    using Wanted = std::function<bool(std::uint16_t eventType, std::uint64_t seconds)>;
    // Takes the event of a record. A record has one trailer and so at most one event, unless it is damaged.
    using Deliver = std::function<void(Dictionary event)>;

    // A record that gives no event.
    struct LeftOut {
        // Of the header. Absent if the header cannot be read.
        std::optional<std::uint16_t> eventType;
        std::uint64_t seconds = 0;
        // A wanted record that must not be reported, with the reason in words. Empty for a record whose content is
        // damaged; whether that one is wanted may not have been asked.
        Event::Exclusion exclusion;
    };
    using LeaveOut = std::function<void(LeftOut record)>;

    // Makes the agent's events.
    RecordEvents(Wanted wanted, Deliver deliver)
        : RecordEvents(std::move(wanted), std::move(deliver), EventContext::ofAgent(), {}) {}
    // `leaveOut` may be empty. The context must outlive the object.
    RecordEvents(Wanted wanted, Deliver deliver, EventContext& context, LeaveOut leaveOut);

    // Blocks for as long as the making of an event does; see Event.
    void read(std::span<const std::uint8_t> record);

    // The number of events delivered, and of wanted records that must not be reported.
    std::uint64_t events() const { return events_; }
    std::uint64_t excluded() const { return excluded_; }

  private:
    void finish(Event& event);

    Wanted wanted_;
    Deliver deliver_;
    EventContext& context_;
    LeaveOut leaveOut_;
    std::uint64_t events_ = 0;
    std::uint64_t excluded_ = 0;
};

}  // namespace sentrova
