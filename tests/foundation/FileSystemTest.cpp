#include "foundation/FileSystem.h"
#include "support/SystemVolume.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;

class FileSystemTest : public ::testing::Test {
  protected:
    ~FileSystemTest() override { ::umask(formerMask_); }

    std::string at(const std::string& name) const { return folder_ + "/" + name; }

    static Data bytes(std::string_view text) { return {text.begin(), text.end()}; }
    std::string content(const std::string& name) {
        const auto read = files_.read(at(name));
        return read ? std::string(read->begin(), read->end()) : "error " + std::to_string(read.error().code);
    }
    std::vector<std::string> names() {
        auto list = *files_.names(folder_);
        std::ranges::sort(list);
        return list;
    }

    testing::SystemVolume volume_;
    const std::string folder_ = volume_.eventData();
    FileSystem& files_ = FileSystem::shared();

  private:
    const mode_t formerMask_ = ::umask(0);
};

using Names = std::vector<std::string>;

TEST_F(FileSystemTest, WrittenFileIsWholeItsOwnersAloneAndReplacesTheOldOne) {
    for (const auto durability : {FileSystem::Durability::renamed, FileSystem::Durability::flushed}) {
        ASSERT_TRUE(files_.writeAtomically(at("a"), bytes("the old content"), durability));
        const auto before = files_.status(at("a"));
        ASSERT_TRUE(files_.writeAtomically(at("a"), bytes("new"), durability));
        EXPECT_EQ(content("a"), "new");
        const auto status = files_.status(at("a"));
        ASSERT_TRUE(before && status);
        EXPECT_EQ(status->permissions, 0600U);
        EXPECT_EQ(status->size, 3U);
        EXPECT_TRUE(status->isRegular && !status->isFolder);
        EXPECT_NE(status->identity, before->identity);
    }
    EXPECT_EQ(names(), Names{"a"});
}

TEST_F(FileSystemTest, FailuresNameTheFileAndLeaveNothingBehind) {
    ASSERT_TRUE(files_.createFolder(at("folder")));
    ASSERT_TRUE(files_.createFile(at("folder/inside")));
    ASSERT_TRUE(files_.createFile(at("file")));
    fs::create_symlink(at("nowhere"), at("link"));
    struct Case {
        const char* what;
        Error error;
        int code;
    };
    const auto renamed = FileSystem::Durability::renamed;
    const Case cases[] = {
        {"write over a folder", files_.writeAtomically(at("folder"), bytes("x"), renamed).error(), EISDIR},
        {"write into nothing", files_.writeAtomically(at("none/a"), bytes("x"), renamed).error(), ENOENT},
        {"read a missing file", files_.read(at("none")).error(), ENOENT},
        {"read a folder", files_.read(at("folder")).error(), EISDIR},
        {"append through a link", files_.append(at("link"), "x").error(), ELOOP},
        {"create a file again", files_.createFile(at("file")).error(), EEXIST},
        {"create through a link", files_.createFile(at("link")).error(), EEXIST},
        {"create a folder without its parent", files_.createFolder(at("none/folder")).error(), ENOENT},
        {"move onto a file", files_.move(at("folder"), at("file")).error(), EEXIST},
        {"move onto a dangling link", files_.move(at("file"), at("link")).error(), EEXIST},
        {"list a file", files_.names(at("file")).error(), ENOTDIR},
        {"look at a dangling link's target", files_.status(at("link")).error(), ENOENT},
    };
    for (const auto& [what, error, code] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(error.domain, kPosixErrorDomain);
        EXPECT_EQ(error.code, code);
        EXPECT_NE(error.description.find(folder_), std::string::npos) << error.description;
    }
    EXPECT_EQ(names(), (Names{"file", "folder", "link"}));
    EXPECT_TRUE(files_.linkStatus(at("link"))->isSymbolicLink);
    EXPECT_FALSE(files_.exists(at("link")));
    ASSERT_TRUE(files_.remove(at("folder")));
    ASSERT_TRUE(files_.move(at("file"), at(".hidden")));
    EXPECT_EQ(names(), (Names{".hidden", "link"}));
}

TEST_F(FileSystemTest, OwnFileOrFolderThatIsALinkIsRefusedByName) {
    ASSERT_TRUE(files_.createFolder(at("outside")));
    ASSERT_TRUE(files_.append(at("outside/file"), "as it was") && files_.append(at("file"), "inside"));
    fs::create_symlink(at("outside"), at("folder"));
    fs::create_symlink(at("outside/file"), at("link"));
    const std::pair<const char*, Error> refused[] = {
        {"link", files_.read(at("link")).error()},
        {"link", files_.append(at("link"), "x").error()},
        {"link", files_.restrictToOwner(at("link")).error()},
        {"folder/file", files_.read(at("folder/file")).error()},
        {"folder/file", files_.append(at("folder/file"), "x").error()},
        {"folder/file", files_.remove(at("folder/file")).error()},
        {"folder/file", files_.move(at("folder/file"), at("stolen")).error()},
        {"folder/new", files_.move(at("file"), at("folder/new")).error()},
        {"folder/new", files_.writeAtomically(at("folder/new"), bytes("x"), FileSystem::Durability::renamed).error()},
        {"folder/new", files_.createFile(at("folder/new")).error()},
        {"folder/new", files_.createFolder(at("folder/new")).error()},
        {"folder", files_.ownNames(at("folder")).error()},
    };
    for (const auto& [path, error] : refused) {
        EXPECT_EQ(error.code, ELOOP) << error.description;
        EXPECT_NE(error.description.find(at(path) + "\": a symbolic link"), std::string::npos) << error.description;
    }
    // A removal takes the link and a write replaces it; a pipe without a writer holds nobody up.
    ASSERT_TRUE(files_.remove(at("folder")));
    ASSERT_TRUE(files_.writeAtomically(at("link"), bytes("new"), FileSystem::Durability::renamed));
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    EXPECT_EQ(files_.read(at("pipe")).error().code, EINVAL);
    EXPECT_EQ(names(), (Names{"file", "link", "outside", "pipe"}));
    EXPECT_EQ(*files_.names(at("outside")), Names{"file"});
    EXPECT_EQ(content("link") + content("outside/file"), "newas it was");
}

}  // namespace
}  // namespace sentrova
