#include "core/FileUtils.h"
#include "foundation/FileSystem.h"
#include "support/AgentFixture.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class FileUtilsTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    FileUtilsTest() { fs::create_directory(folder_); }

    std::string at(const std::string& name) const { return (folder_ / name).string(); }
    void write(const std::string& name, const std::string& content) const { std::ofstream(at(name)) << content; }

    const fs::path folder_ = volume().agent() / "files";
};

TEST_F(FileUtilsTest, CreationLeavesWhatIsThere) {
    write("a", "content");
    EXPECT_TRUE(FileUtils::createFile(at("a")));
    EXPECT_TRUE(FileUtils::createFile(at("b")));
    EXPECT_TRUE(FileUtils::createFile(at("none/c")));
    EXPECT_EQ(FileUtils::readFile(at("a")), "content");
    EXPECT_EQ(FileUtils::readFile(at("b")), "");
    EXPECT_EQ(logged("][ERROR]" + at("a") + " already exists\r\n"), 1);

    EXPECT_TRUE(FileUtils::createFolder(at("d")));
    EXPECT_TRUE(FileUtils::createFolder(at("d")));
    EXPECT_FALSE(FileUtils::createFolder(at("none/d")));
    EXPECT_EQ(logged("][INFO]Going to create folder " + at("d") + "\r\n"), 1);
    EXPECT_EQ(logged("][ERROR]" + at("d") + " already exists\r\n"), 1);
    EXPECT_TRUE(FileUtils::doesFileExist(at("d")));
    EXPECT_FALSE(FileUtils::doesFileExist(at("none")));
}

TEST_F(FileUtilsTest, TextIsAppendedAndReadWhole) {
    EXPECT_TRUE(FileUtils::writeToFile(at("a"), "one "));
    EXPECT_TRUE(FileUtils::writeToFile(at("a"), "caf\xC3\xA9"));
    EXPECT_TRUE(FileUtils::writeToFile(at("none/a"), "lost"));
    EXPECT_EQ(FileUtils::readFile(at("a")), "one caf\xC3\xA9");
    EXPECT_EQ(FileUtils::readFile(at("missing")), std::nullopt);
    EXPECT_EQ(logged("][ERROR]File Doesnot Exists\r\n"), 1);
    write("bytes", "caf\xE9");
    EXPECT_EQ(FileUtils::readFile(at("bytes")), std::nullopt);
    EXPECT_EQ(FileUtils::readFile(at("")), std::nullopt);
    EXPECT_EQ(logged("][FileUtils]"), logged("][ERROR]"));
    EXPECT_EQ(logged("][ERROR]"), 3);
}

TEST_F(FileUtilsTest, DeletionAnswersThatItWasTried) {
    class Stubborn final : public FileSystem {
        Result<Done> remove(const std::string&) override { return posixError(EBUSY); }
    };
    fs::create_directory(at("d"));
    write("d/inside", "x");
    fs::create_symlink(at("nowhere"), at("link"));
    EXPECT_TRUE(FileUtils::deleteFile(at("d")));
    EXPECT_TRUE(FileUtils::deleteFile(at("link")));
    EXPECT_TRUE(fs::is_empty(folder_));
    EXPECT_FALSE(FileUtils::deleteFile(at("d")));
    EXPECT_EQ(logged("][INFO]File Doesnot Exists\r\n"), 1);

    write("busy", "x");
    Stubborn stubborn;
    FileSystem::install(&stubborn);
    EXPECT_TRUE(FileUtils::deleteFile(at("busy")));
    FileSystem::install(nullptr);
    EXPECT_TRUE(fs::exists(at("busy")));
    EXPECT_EQ(logged("][INFO]" + posixError(EBUSY).description), 1);
}

TEST_F(FileUtilsTest, ZipTakesAnyPathAsAPathAndNothingElse) {
    const std::string names[] = {"Config2026-11-15.log",    "two words.log",         "quote\".log",
                                 "$HOME$(touch pwned).log", "`touch pwned`.log",     "back\\slash\\\".log",
                                 "line\nfeed.log",          "it's; touch pwned.log", "without extension",
                                 "a.folder/no extension"};
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
    for (const auto& folder : {volume().bin(), folder_}) {
        EXPECT_FALSE(fs::exists(folder / "pwned"));
    }
    EXPECT_EQ(logged("][INFO]Output of ZipCommand 0\r\n"), static_cast<int>(std::size(names)));
    EXPECT_FALSE(FileUtils::zipFile(at("missing.log")));
    EXPECT_FALSE(fs::exists(at("missing.zip")));
}

TEST_F(FileUtilsTest, NamesAreListedOldestFirstAndUrlsWithoutHiddenOnes) {
    for (const auto& [name, age] : {std::pair("new", 1), {".hidden", 2}, {"z same", 3}, {"a same", 3}, {"old", 9}}) {
        write(name, "");
        fs::last_write_time(at(name), fs::file_time_type::clock::time_point(std::chrono::hours(1000 - age)));
    }
    EXPECT_THAT(*FileUtils::listOfFilesInPath(folder_.string()),
                ElementsAre("old", "a same", "z same", ".hidden", "new"));
    EXPECT_EQ(FileUtils::listOfFilesInPath(at("missing")), std::nullopt);

    const auto urls = FileUtils::listOfFileURLSInPath(folder_.string());
    ASSERT_TRUE(urls);
    EXPECT_THAT(*urls, UnorderedElementsAre(FileUrl(at("new")), FileUrl(at("a same")), FileUrl(at("z same")),
                                            FileUrl(at("old"))));
    EXPECT_EQ(FileUtils::listOfFileURLSInPath(at("missing")), std::nullopt);
    EXPECT_EQ(logged("][ERROR]FileUtils listOfFileURLSInPath path doesnot exists\r\n"), 1);
}

TEST_F(FileUtilsTest, FolderSizeIsTheSpaceOnDiskOfAllFilesBelow) {
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
    EXPECT_EQ(FileUtils::getFoldersize(at("d/a")), 0);
    EXPECT_EQ(FileUtils::getFoldersize(at("missing")), 0);
}

TEST_F(FileUtilsTest, AttributesAreThoseOfTheFile) {
    write("a", "12345");
    fs::last_write_time(at("a"), fs::file_time_type::clock::from_sys(Date(std::chrono::seconds(1'700'000'000))));
    const auto attributes = FileUtils::getFileAttributes(at("a"));
    ASSERT_TRUE(attributes);
    EXPECT_EQ((*attributes)[FileUtils::kSize], Value(5));
    EXPECT_EQ((*attributes)[FileUtils::kModificationDate], Value(Date(std::chrono::seconds(1'700'000'000))));
    EXPECT_EQ((*attributes)[FileUtils::kOwnerAccountId], Value(::getuid()));
    EXPECT_EQ(FileUtils::modificationDate(at("a")), Date(std::chrono::seconds(1'700'000'000)));
    EXPECT_EQ(FileUtils::sizeOfFile(at("a")), 5);

    EXPECT_EQ(FileUtils::getFileAttributes(at("missing")), std::nullopt);
    EXPECT_EQ(logged("][ERROR]" + at("missing") + " doesnot exists\r\n"), 1);
    EXPECT_EQ(FileUtils::getFileAttributes(at("a/below")), std::nullopt);
    EXPECT_EQ(logged("][ERROR]Error while getfileattributes "), 1);
    EXPECT_EQ(FileUtils::sizeOfFile(at("missing")), 0);
}

TEST_F(FileUtilsTest, MoveNeverReplaces) {
    write("a", "a");
    write("b", "b");
    EXPECT_FALSE(FileUtils::moveFileFrom(at("a"), at("b")));
    EXPECT_EQ(logged("][INFO]Error moving file: "), 1);
    EXPECT_FALSE(FileUtils::moveFileFrom(at("missing"), at("c")));
    EXPECT_EQ(logged("][INFO]" + at("missing") + " Source file does not exist.\r\n"), 1);
    EXPECT_TRUE(FileUtils::moveFileFrom(at("a"), at("c")));
    EXPECT_EQ(FileUtils::readFile(at("b")), "b");
    EXPECT_EQ(FileUtils::readFile(at("c")), "a");
    EXPECT_FALSE(fs::exists(at("a")));
}

}  // namespace
}  // namespace sentrova
