// Makes events of audit records by the agent's rules, for people.

#pragma once

#include "collection/EventContext.h"
#include "collection/EventSelection.h"
#include "collection/RecordEvents.h"
#include "collection/bsm/ByteSource.h"
#include "collection/bsm/RecordReader.h"
#include "control/EventChoice.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova::control {

// Not thread-safe. Begins like an agent without a stored time: record times never go back, from one source to the next
// either.
class EventReader {
  public:
    // Takes the chosen events in the order of their records; with excluded ones, if they are chosen too.
    using Take = std::function<void(Dictionary event)>;

    // The choice and the context must outlive the reader.
    EventReader(const EventChoice& choice, EventContext& context, Take take);
    EventReader(const EventReader&) = delete;
    EventReader& operator=(const EventReader&) = delete;

    // The time of the newest record read, in whole seconds since 1970.
    std::uint64_t lastRead() const { return lastRead_; }
    // Begins a reader of the agent: one that is opened admits no record of the last-read second.
    void beginReader();

    // What a source held. The numbers are offsets in it, in bytes.
    struct Outcome {
        // What is wrong with the data, in words. Empty if nothing is.
        std::string faults;
        // Where the unread part begins.
        std::uint64_t position = 0;
        bsm::RecordReader::End end{};
    };
    // Reads a source to its end, or until `isEnded`.
    Outcome read(bsm::ByteSource& source, const std::atomic<bool>& isEnded);
    // Only tells the selected records of a source that the agent would not read, with the reason.
    void readSkipped(bsm::ByteSource& source, const std::atomic<bool>& isEnded, std::string_view reason);

  private:
    bool isWanted(std::uint16_t eventType, std::uint64_t seconds);
    void leaveOut(RecordEvents::LeftOut record);
    void tellExcluded(std::uint16_t eventType, std::uint64_t seconds, std::string_view reason, Dictionary event = {});

    const EventChoice& choice_;
    const EventSelection selection_;
    const Take take_;
    RecordEvents events_;
    std::uint64_t lastRead_ = 0;
    // Why no record of the present source is read; empty if they are.
    std::string_view skipped_;

    // Of the present source.
    std::uint64_t offset_ = 0;
    std::uint64_t damaged_ = 0;
    std::uint64_t firstDamaged_ = 0;
};

}  // namespace sentrova::control
