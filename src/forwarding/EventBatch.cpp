#include "forwarding/EventBatch.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

void EventBatch::add(const Dictionary& event, std::string_view text) {
    text_ += size_++ == 0 ? '[' : ',';
    text_ += text;
    if (const auto& time = event["record_time"]; time.isNumber()) {
        first_ = std::min(first_, time.integerValue());
        last_ = std::max(last_, time.integerValue());
    }
}

const std::string& EventBatch::asArray() & {
    text_ += size_ == 0 ? "[]" : "]";
    return text_;
}

std::string EventBatch::asArray() && {
    asArray();
    return std::move(text_);
}

void EventBatch::clear() {
    auto memory = std::move(text_);
    memory.clear();
    *this = EventBatch();
    text_ = std::move(memory);
}

std::string EventBatch::recordedWhen() const {
    return first_ > last_ ? "" : fmt::format(", recorded from {} to {}", first_, last_);
}

}  // namespace sentrova
