#include "collection/bsm/RecordReader.h"
#include "collection/bsm/TokenReader.h"
#include "support/MemorySource.h"
#include "support/WorkingDay.h"

#include <set>

#include <gtest/gtest.h>

namespace sentrova::testing {

TEST(WorkingDayTest, TrailsAreReadWholeAndHoldEveryKindOfLogonWithinTheDay) {
    const std::chrono::seconds start(1383550000);
    const WorkingDay day(start, 7);
    std::set<std::uint16_t> events;
    std::size_t records = 0;
    for (const auto& [name, content] : day.trails()) {
        MemorySource source(content.bytes());
        bsm::RecordReader reader(source);
        for (; reader.au_read_rec() > 0; ++records) {
            bsm::TokenReader tokens(reader.record());
            while (tokens.left() > 0) {
                ASSERT_EQ(tokens.au_fetch_tok(), 0) << name << ", record " << records;
                if (const auto* header = std::get_if<bsm::HeaderToken>(&tokens.token().content)) {
                    events.insert(header->eventType);
                    EXPECT_GE(header->seconds, static_cast<std::uint64_t>(start.count()));
                    EXPECT_LT(header->seconds, static_cast<std::uint64_t>((start + WorkingDay::kLength).count()));
                }
            }
        }
        EXPECT_EQ(reader.end(), bsm::RecordReader::End::kEndOfData) << name;
    }
    const auto fileTokens = 2 * day.trails().size() - 1;
    EXPECT_EQ(records, day.logonRecords() + day.otherRecords() + fileTokens);
    const std::uint16_t logons[] = {45021, 45022, 45023, 45026, 45028, 6152, 6153, 6159, 6172, 32800};
    for (const auto event : logons) {
        EXPECT_TRUE(events.contains(event)) << event;
    }
    EXPECT_EQ(WorkingDay(start, 7).trails().front().content.bytes(), day.trails().front().content.bytes());
}

}  // namespace sentrova::testing
