#include "support/ForgetfulFileSystem.h"
#include "volume/SystemVolume.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using testing::ForgetfulFileSystem;
using Crash = ForgetfulFileSystem::Crash;
using Durability = FileSystem::Durability;

class ForgetfulFileSystemTest : public ::testing::Test {
  protected:
    std::string at(const std::string& name) const { return folder_ + "/" + name; }
    std::string content(const std::string& name) {
        auto text = files_->readText(at(name));
        return text ? *text : "-";
    }
    bool put(const std::string& name, const std::string& text, Durability durability) {
        return static_cast<bool>(files_->writeAtomically(at(name), bytes(text), durability));
    }
    static Data bytes(const std::string& text) { return {text.begin(), text.end()}; }

    testing::SystemVolume volume_;
    const std::string folder_ = volume_.eventData();
    std::unique_ptr<ForgetfulFileSystem> files_ = std::make_unique<ForgetfulFileSystem>(folder_);
};

TEST_F(ForgetfulFileSystemTest, PowerLossKeepsWhatWasFlushedAndAnyPartOfTheRest) {
    const std::string old(2048, 'o');
    std::set<std::string> journals;
    std::set<std::array<bool, 3>> others;
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        files_.reset();
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
        files_ = std::make_unique<ForgetfulFileSystem>(folder_);
        ASSERT_TRUE(put("journal", old, Durability::flushed) && put("gone", "g", Durability::renamed));
        ASSERT_TRUE(files_->append(at("log"), "kept") && files_->flushFile(at("log")) && files_->remove(at("log")));
        const auto open = files_->openForWriting(at("journal"));
        ASSERT_TRUE(open && (*open)->write(512, bytes(std::string(2048, 'x'))) && (*open)->flush());
        // Unflushed: the last three of these five sectors, a sixth one, and the names of three files.
        ASSERT_TRUE((*open)->write(1024, bytes(std::string(2048, 'n'))));
        ASSERT_TRUE(put("a", "a", Durability::renamed) && files_->remove(at("gone")));
        // After a kill everything is there, and still not flushed.
        files_->crash(Crash::kill);
        EXPECT_FALSE((*open)->flush());
        EXPECT_EQ(content("journal").size(), 3072U);
        EXPECT_EQ(content("a") + content("gone") + content("log"), "a--");
        files_->crash(Crash::powerLoss, seed);

        const auto journal = content("journal");
        EXPECT_EQ(journal.substr(0, 1024), std::string(512, 'o') + std::string(512, 'x'));
        std::string sectors;
        for (std::size_t sector = 1024; sector < journal.size(); sector += 512) {
            const auto part = journal.substr(sector, 512);
            EXPECT_EQ(std::ranges::count(part, part[0]), std::ssize(part)) << "half a sector";
            sectors += part[0] == '\0' ? '0' : part[0];
        }
        journals.insert(sectors);
        const auto log = content("log");
        EXPECT_TRUE(log == "kept" || log == "-") << log;
        others.insert({files_->exists(at("a")), files_->exists(at("gone")), files_->exists(at("log"))});
    }
    for (const char* const seen : {"xxx", "nnnn", "nxnn", "xxn", "xnx0"}) {
        EXPECT_TRUE(journals.contains(seen)) << seen;
    }
    EXPECT_EQ(others.size(), 8U) << "each change of a name is there or not, in any combination";
}

TEST_F(ForgetfulFileSystemTest, StopsInTheMiddleOfAnyCall) {
    ASSERT_TRUE(put("a", "old", Durability::flushed));
    const auto before = files_->operations();
    ASSERT_TRUE(put("a", "older", Durability::flushed));
    const auto steps = files_->operations() - before;
    EXPECT_EQ(steps, 5U) << "create, write, flush, rename, flush the folder";
    for (std::size_t step = 1; step <= steps; ++step) {
        files_->stopAfter(files_->operations() + step);
        EXPECT_FALSE(files_->isStopped());
        const bool isWritten = put("a", "new " + std::to_string(step), Durability::flushed);
        EXPECT_EQ(isWritten, step == steps) << "writeAtomically ignores a failed flush of the folder";
        EXPECT_TRUE(files_->isStopped());
        EXPECT_EQ(files_->readText(at("a")).error().code, EIO);
        EXPECT_EQ(files_->ownNames(folder_).error().code, EIO);
        EXPECT_EQ(files_->remove(at("a")).error().code, EIO);
        EXPECT_TRUE(files_->exists(volume_.root().string())) << "files elsewhere are there as ever";
        files_->crash(Crash::kill);
        EXPECT_EQ(content("a"), step < steps ? "older" : "new 5");
        const auto names = *files_->names(folder_);
        for (const auto& name : names) {
            if (files_->isTemporaryName(name)) {
                EXPECT_EQ(content(name), step <= 2 ? "ne" : "new " + std::to_string(step));
                files_->lose(at(name));
            }
        }
    }
    files_->damage(at("a"), [](std::string& text) { text[0] = 'N'; });
    files_->crash(Crash::powerLoss);
    EXPECT_EQ(content("a"), "New 5");
}

TEST_F(ForgetfulFileSystemTest, FullDiskTakesWhatFitsAndOverwritesAndRemoves) {
    files_->setCapacity(10);
    ASSERT_TRUE(files_->append(at("a"), "12345678"));
    auto open = files_->openForWriting(at("a"));
    ASSERT_TRUE(open);
    EXPECT_EQ((*open)->write(6, bytes("abcdef")).error().code, ENOSPC);
    EXPECT_EQ(content("a"), "123456abcd");
    EXPECT_TRUE((*open)->write(0, bytes("ABCDEFGHIJ")));
    EXPECT_FALSE(put("b", "b", Durability::renamed));
    EXPECT_TRUE(files_->remove(at("a")) && put("b", "b", Durability::renamed));
}

}  // namespace
}  // namespace sentrova
