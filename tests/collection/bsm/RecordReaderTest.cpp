#include "collection/bsm/RecordReader.h"
#include "support/Footprint.h"
#include "support/MemorySource.h"
#include "volume/TrailWriter.h"

#include <fstream>
#include <numeric>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using bsm::RecordReader;
using End = RecordReader::End;

struct Reading {
    std::vector<Data> records;
    End end = End::kNotYet;
    std::uint64_t position = 0;
    std::uint64_t leftUnread = 0;
    // Offset and length of each record that was too long.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> skipped;
};

Reading readAll(const Data& trail, std::vector<std::size_t> portions = {}) {
    MemorySource source(trail, std::move(portions));
    RecordReader reader(source);
    Reading reading;
    for (auto length = reader.au_read_rec(); length >= 0; length = reader.au_read_rec()) {
        EXPECT_EQ(std::ssize(reader.record()), length);
        if (length > 0) {
            reading.records.emplace_back(reader.record().begin(), reader.record().end());
        } else {
            reading.skipped.emplace_back(reader.position(), reader.skippedLength());
        }
    }
    reading.end = reader.end();
    reading.position = reader.position();
    reading.leftUnread = reader.leftUnread();
    return reading;
}

Data joined(const std::vector<Data>& parts) {
    return std::accumulate(parts.begin(), parts.end(), Data(), [](Data whole, const Data& part) {
        whole.insert(whole.end(), part.begin(), part.end());
        return whole;
    });
}

std::vector<Data> smallTrail() {
    return {TrailWriter().addFile(1s, "/var/audit/1.2").bytes(), TrailRecord(6152).at(1s).text("one").bytes(),
            TrailRecord(45023).at(2s).header(Layout::k64Ex, "2001:db8::7").returns(5000, 255).bytes(),
            TrailWriter().addFile(2s, "").bytes(), TrailRecord(6153).at(3s).bytes()};
}

}  // namespace

TEST(RecordReaderTest, RecordsArriveWholeHoweverTheSourceSplitsThem) {
    const auto records = smallTrail();
    const auto trail = joined(records);
    for (std::size_t portion = 1; portion <= trail.size(); ++portion) {
        EXPECT_EQ(readAll(trail, {portion}).records, records) << "portions of " << portion;
        const auto split = readAll(trail, {portion, trail.size()});
        EXPECT_EQ(split.records, records) << "split after " << portion;
        EXPECT_EQ(split.end, End::kEndOfData) << "split after " << portion;
    }
}

TEST(RecordReaderTest, TrailCutAnywhereGivesTheRecordsBeforeTheCut) {
    std::vector<Data> whole;
    Data trail;
    for (const auto& record : smallTrail()) {
        for (std::size_t cut = 0; cut < record.size(); ++cut) {
            const auto reading = readAll(joined({trail, {record.data(), record.data() + cut}}));
            EXPECT_EQ(reading.records, whole);
            EXPECT_EQ(reading.end, cut == 0 ? End::kEndOfData : End::kTruncatedRecord) << cut;
            EXPECT_EQ(reading.position, trail.size());
            EXPECT_EQ(reading.leftUnread, cut);
        }
        whole.push_back(record);
        trail = joined(whole);
    }
}

TEST(RecordReaderTest, BytesThatCannotBeARecordEndTheReadingAndAreCounted) {
    const auto good = TrailRecord(6152).at(1s).text("good").bytes();
    // A length of 0; a length shorter than the length field; one byte short of the minimum; zeros, as in a file that
    // was not written out; a token that cannot begin a record; a byte that is not a token.
    for (const Data& bytes :
         {Data{0x14, 0, 0, 0, 0}, {0x14, 0, 0, 0, 3}, {0x74, 0, 0, 0, 4}, {0x00}, {0x13, 0xB1, 0x05}, {0xFF}}) {
        const auto reading = readAll(joined({good, bytes, good}));
        EXPECT_EQ(reading.records, std::vector<Data>{good});
        EXPECT_EQ(reading.end, End::kGarbage);
        EXPECT_EQ(reading.position, good.size());
        EXPECT_EQ(reading.leftUnread, bytes.size() + good.size());
    }
}

TEST(RecordReaderTest, RecordsUpToTheLargestAreReadAndLongerOnesSkippedAcrossBlocks) {
    const auto small = TrailRecord(6152).at(1s).text("small").bytes();
    Data largest = {0x14, 1, 0, 0, 0};
    largest.resize(RecordReader::kMaximumRecordLength, 0x55);
    Data longer = {0x79, 1, 0, 0, 1};
    longer.resize(RecordReader::kMaximumRecordLength + 1, 0x14);
    const std::vector<Data> many(9000, small);  // more than one block
    const auto head = joined(many);
    const auto trail = joined({head, longer, longer, small, largest, small, {0x15, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}});
    auto records = many;
    records.insert(records.end(), {small, largest, small});
    for (const std::size_t portion : {std::size_t{65521}, std::size_t{1} << 30}) {
        const auto reading = readAll(trail, {portion});
        EXPECT_TRUE(reading.records == records);
        EXPECT_EQ(reading.skipped, (decltype(reading.skipped){{head.size(), longer.size()},
                                                              {head.size() + longer.size(), longer.size()},
                                                              {trail.size() - 7, 0xFFFFFFFF}}));
        EXPECT_EQ(reading.end, End::kTruncatedRecord) << "the source ends within the last long record";
        EXPECT_EQ(reading.position, trail.size() - 7);
        EXPECT_EQ(reading.leftUnread, 7U);
    }
}

TEST(RecordReaderTest, MemoryGrowsWithReceivedBytesAndIsReleasedAfterLongRecords) {
    const auto residentPages = [] {
        std::int64_t size = 0, resident = 0;
        std::ifstream("/proc/self/statm") >> size >> resident;
        return resident;
    };
    Data record = {0x14, 1, 0, 0, 0};
    MemorySource claimed(record);
    EXPECT_EQ(RecordReader(claimed).au_read_rec(), -1);
    EXPECT_LE(claimed.room(), 256U * 1024);

    record.resize(RecordReader::kMaximumRecordLength);
    MemorySource source(joined({record, record, record}));
    RecordReader reader(source);
    const auto before = residentPages();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(reader.au_read_rec(), std::ssize(record));
    }
    EXPECT_EQ(reader.au_read_rec(), -1);
    EXPECT_LE(source.room(), 256U * 1024);
    // Under a sanitizer the footprint is 0, because it keeps information about freed memory.
    EXPECT_TRUE(Footprint().memory == 0 || residentPages() - before < 1024);
}

TEST(RecordReaderTest, SourceIsReadOnlyWhenTheBlockHasNoWholeRecordAndNeverAfterAnError) {
    const auto record = TrailRecord(6152).at(1s).bytes();
    MemorySource source(joined({record, record}));
    source.failAtEnd();
    RecordReader reader(source);
    for (const bool good : {true, true, false, false}) {
        EXPECT_EQ(reader.au_read_rec() > 0, good);
        EXPECT_EQ(source.reads(), good ? 1U : 2U);
    }
    EXPECT_EQ(reader.au_read_rec(), -1);
    EXPECT_EQ(reader.end(), End::kReadError);
}

}  // namespace sentrova::testing
