#include "core/FileUtils.h"
#include "support/AgentFixture.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;

class FileUtilsTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    FileUtilsTest() { fs::create_directory(folder_); }

    std::string at(const std::string& name) const { return (folder_ / name).string(); }
    void write(const std::string& name, const std::string& content) const { std::ofstream(at(name)) << content; }

    const fs::path folder_ = volume().agent() / "files";
};

TEST_F(FileUtilsTest, ExistingFilesAreNeitherRecreatedNorOverwritten) {
    EXPECT_TRUE(FileUtils::writeToFile(at("a"), "caf\xC3\xA9"));
    EXPECT_TRUE(FileUtils::createFile(at("a")));
    EXPECT_TRUE(FileUtils::createFile(at("b")));
    EXPECT_TRUE(FileUtils::createFolder(at("d")));
    EXPECT_TRUE(FileUtils::createFolder(at("d")));
    EXPECT_FALSE(FileUtils::createFolder(at("none/d")));
    EXPECT_FALSE(FileUtils::moveFileFrom(at("a"), at("b")));
    EXPECT_FALSE(FileUtils::moveFileFrom(at("missing"), at("c")));
    EXPECT_EQ(FileUtils::readFile(at("a")), "caf\xC3\xA9");
    EXPECT_TRUE(FileUtils::writeToFile(at("b"), "no UTF-8: \xE9"));
    for (const auto* name : {"b", "b/below", "missing"}) {
        EXPECT_EQ(FileUtils::readFile(at(name)), std::nullopt) << name;
        EXPECT_EQ(FileUtils::listOfFileURLSInPath(at(name)), std::nullopt) << name;
        EXPECT_EQ(FileUtils::getFoldersize(at(name)), 0) << name;
    }
}

TEST_F(FileUtilsTest, ZipTakesSpecialCharactersInPathsLiterally) {
    const std::string names[] = {
        "two words.log",         "quote\".log",         "$HOME$(touch pwned).log",
        "`touch pwned`.log",     "back\\slash\\\".log", "line\nfeed.log",
        "it's; touch pwned.log", "without extension",   "a.folder/no extension",
    };
    fs::create_directory(at("a.folder"));
    for (const auto& name : names) {
        SCOPED_TRACE(name);
        write(name, "the content of " + name);
        EXPECT_TRUE(FileUtils::zipFile(at(name)));
        EXPECT_TRUE(fs::exists(at(name)));
        const auto bare = name.ends_with(".log") ? name.substr(0, name.size() - 4) : name;
        std::ostringstream zip;
        zip << std::ifstream(at(bare + ".zip")).rdbuf();
        EXPECT_THAT(zip.str(), ::testing::StartsWith("PK"));
        EXPECT_EQ(zip.str().find("files/"), std::string::npos) << "the folder's name is in it";
    }
    EXPECT_FALSE(fs::exists(volume().bin() / "pwned") || fs::exists(folder_ / "pwned"));
    EXPECT_FALSE(FileUtils::zipFile(at("missing.log")) || fs::exists(at("missing.zip")));
}

TEST_F(FileUtilsTest, FolderSizeIsTheDiskSpaceOfAllFilesBelow) {
    fs::create_directories(at("d/deeper"));
    write("d/a", std::string(10'000, 'x'));
    write("d/deeper/b", std::string(100, 'x'));
    fs::resize_file(at("d/deeper/b"), 50'000'000);
    fs::create_directory_symlink(folder_, at("d/loop"));
    std::int64_t expected = 0;
    for (const auto* name : {"d/a", "d/deeper/b", "d/loop"}) {
        struct stat status{};
        ASSERT_EQ(::lstat(at(name).c_str(), &status), 0);
        expected += status.st_blocks * 512;
    }
    EXPECT_EQ(FileUtils::getFoldersize(at("d")), expected);
    EXPECT_LT(expected, 1'000'000) << "the hole in the file was counted";
    EXPECT_EQ(FileUtils::sizeOfFile(at("d/deeper/b")), 50'000'000);
}

}  // namespace
}  // namespace sentrova
