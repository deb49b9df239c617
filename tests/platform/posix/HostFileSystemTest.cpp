#include "platform/posix/HostFileSystem.h"
#include "support/FaultyFileSystem.h"
#include "volume/SystemVolume.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;

class HostFileSystemTest : public ::testing::Test {
  protected:
    ~HostFileSystemTest() override { ::umask(formerMask_); }

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

    // Creates two links: "folder", which points to a folder, and "link", which points to a file.
    void refusesLinks(FileSystem& files) {
        const std::pair<const char*, Error> refused[] = {
            {"link", files.read(at("link")).error()},
            {"link", files.append(at("link"), "x").error()},
            {"link", files.openForWriting(at("link")).error()},
            {"link", files.flushFile(at("link")).error()},
            {"link", files.restrictToOwner(at("link")).error()},
            {"folder/file", files.read(at("folder/file")).error()},
            {"folder/file", files.append(at("folder/file"), "x").error()},
            {"folder/file", files.remove(at("folder/file")).error()},
            {"folder/file", files.move(at("folder/file"), at("stolen")).error()},
            {"folder/new", files.move(at("file"), at("folder/new")).error()},
            {"folder/new", files.writeAtomically(at("folder/new"), bytes("x"), renamed).error()},
            {"folder/new", files.createFile(at("folder/new")).error()},
            {"folder/new", files.createFolder(at("folder/new")).error()},
            {"folder", files.ownNames(at("folder")).error()},
            {"folder", files.checkOwnFolder(at("folder")).error()},
            {"link", files.checkLinks(at("link")).error()},
        };
        for (const auto& [path, error] : refused) {
            EXPECT_EQ(error.code, ELOOP) << error.description;
            EXPECT_NE(error.description.find(at(path) + "\": a symbolic link"), std::string::npos) << error.description;
        }
    }

    testing::SystemVolume volume_;
    const std::string folder_ = volume_.eventData();
    platform::HostFileSystem files_;
    static constexpr auto renamed = FileSystem::Durability::renamed;

  private:
    const mode_t formerMask_ = ::umask(0);
};

using Names = std::vector<std::string>;

TEST_F(HostFileSystemTest, WrittenFileIsCompleteForItsOwnerOnlyAndReplacesTheOldOne) {
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
    // A write that a signal interrupts is repeated.
    testing::FaultyFileSystem files([](const auto&) { return true; });
    files.arm({.call = files.kWrite, .error = EINTR, .number = 1});
    EXPECT_TRUE(files.append(at("a"), " and more"));
    EXPECT_EQ(content("a"), "new and more");
    EXPECT_EQ(names(), Names{"a"});
}

TEST_F(HostFileSystemTest, FailuresNameTheFileAndLeaveNothingBehind) {
    ASSERT_TRUE(files_.createFolder(at("folder")));
    ASSERT_TRUE(files_.createFile(at("folder/inside")));
    ASSERT_TRUE(files_.createFile(at("file")));
    fs::create_symlink(at("nowhere"), at("link"));
    const std::tuple<const char*, Error, int> cases[] = {
        {"write over a folder", files_.writeAtomically(at("folder"), bytes("x"), renamed).error(), EISDIR},
        {"write into nothing", files_.writeAtomically(at("none/a"), bytes("x"), renamed).error(), ENOENT},
        {"read a missing file", files_.read(at("none")).error(), ENOENT},
        {"read a folder", files_.read(at("folder")).error(), EISDIR},
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

TEST_F(HostFileSystemTest, OpenFileIsWrittenAnywhereWholeAndSaysWhatFailed) {
    // Writes one byte at a time. Each error is that of one call.
    struct SlowFiles final : platform::HostFileSystem {
        std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content) override {
            return fails() ? -1 : HostFileSystem::hostWrite(descriptor, content.first(1));
        }
        int hostFlush(int /*descriptor*/) override { return fails() ? -1 : 0; }
        int hostTruncate(int descriptor, std::uint64_t size) override {
            return fails() ? -1 : HostFileSystem::hostTruncate(descriptor, size);
        }
        bool fails() {
            ++calls;
            errno = std::exchange(error, 0);
            return errno != 0;
        }
        int error = 0;
        int calls = 0;
    } files;
    auto opened = files.openForWriting(at("file"));
    ASSERT_TRUE(opened);
    auto& file = **opened;
    files.error = EINTR;
    EXPECT_TRUE(file.write(2, bytes("cdef")));
    EXPECT_TRUE(file.write(3, bytes("DE")));
    EXPECT_EQ(content("file"), std::string("\0\0cDEf", 6));
    files.error = EINTR;
    EXPECT_TRUE(file.truncate(3));
    EXPECT_EQ(content("file"), std::string("\0\0c", 3));
    files.error = EINTR;
    EXPECT_TRUE(file.flush());
    files.calls = 0;
    EXPECT_TRUE(files.flushFile(at("file")));
    EXPECT_EQ(files.calls, 2) << "the file and its folder";

    const std::pair<const char*, std::function<Result<Done>()>> calls[] = {
        {"write", [&] { return file.write(0, bytes("x")); }},
        {"flush", [&] { return file.flush(); }},
        {"truncate", [&] { return file.truncate(0); }},
        {"flushFile", [&] { return files.flushFile(at("file")); }},
    };
    for (const auto& [what, call] : calls) {
        files.error = ENOSPC;
        const auto result = call();
        ASSERT_FALSE(result) << what;
        EXPECT_EQ(result.error().code, ENOSPC) << what;
        EXPECT_NE(result.error().description.find(at("file")), std::string::npos) << result.error().description;
    }

    ASSERT_TRUE(files_.move(at("file"), at("renamed")) && files_.createFile(at("file")));
    EXPECT_TRUE(file.write(0, bytes("ab")));
    EXPECT_EQ(content("renamed") + content("file"), "abc");
    auto again = files_.openForWriting(at("renamed"));
    ASSERT_TRUE(again);
    EXPECT_EQ(content("renamed"), "abc") << "opening keeps the content";
    EXPECT_EQ(files_.status(at("renamed"))->permissions, 0600U);
    EXPECT_EQ(files_.openForWriting(folder_).error().code, EISDIR);
    EXPECT_EQ(files_.flushFile(at("none")).error().code, ENOENT);
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    EXPECT_EQ(files_.flushFile(at("pipe")).error().code, EINVAL);
}

TEST_F(HostFileSystemTest, LinkIsFollowedOnlyIfNobodyButTheAgentsUserCouldHaveCreatedIt) {
    ASSERT_TRUE(files_.createFolder(at("outside")));
    ASSERT_TRUE(files_.append(at("outside/file"), "as it was") && files_.append(at("file"), "inside"));
    fs::create_symlink("outside/", at("folder"));
    fs::create_symlink(at("folder/file"), at("link"));
    fs::create_symlink("circle", at("circle"));
    const auto linked = files_.openForWriting(at("link"));
    EXPECT_TRUE(linked && (*linked)->write(9, bytes(", and")) && (*linked)->flush() && files_.flushFile(at("link")));
    EXPECT_TRUE(files_.append(at("link"), " more"));
    EXPECT_TRUE(files_.append(at("folder/log"), "line\n"));
    EXPECT_EQ(content("link") + content("folder/file"), "as it was, and moreas it was, and more");
    EXPECT_TRUE(files_.writeAtomically(at("link"), bytes("new"), renamed));
    EXPECT_TRUE(fs::is_symlink(at("link")));
    EXPECT_EQ(content("outside/file"), "new");
    EXPECT_EQ(files_.ownNames(at("folder"))->size(), 2U);
    EXPECT_TRUE(files_.move(at("folder/log"), at("folder/moved")) && files_.checkLinks(at("folder/none")));
    EXPECT_TRUE(files_.remove(at("outside/moved")));
    EXPECT_EQ(files_.read(at("circle")).error().code, ELOOP);
    ASSERT_TRUE(files_.writeAtomically(at("outside/file"), bytes("as it was"), renamed));

    struct OthersLinks final : platform::HostFileSystem {
        int hostLinkStatus(const Location& at, struct stat& status) override {
            const int result = HostFileSystem::hostLinkStatus(at, status);
            status.st_uid += S_ISLNK(status.st_mode) ? 1 : 0;
            return result;
        }
    } others;
    refusesLinks(others);
    fs::permissions(folder_, fs::perms::others_write, fs::perm_options::add);
    refusesLinks(files_);

    // remove and writeAtomically affect the link itself. A FIFO without a writer blocks no read.
    ASSERT_TRUE(files_.remove(at("folder")));
    ASSERT_TRUE(files_.writeAtomically(at("link"), bytes("new"), renamed));
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    EXPECT_EQ(files_.read(at("pipe")).error().code, EINVAL);
    EXPECT_EQ(names(), (Names{"circle", "file", "link", "outside", "pipe"}));
    EXPECT_EQ(content("link") + content("outside/file"), "newas it was");
}

TEST_F(HostFileSystemTest, MoveToAnotherVolumeIsCompleteOrChangesNothing) {
    struct TwoVolumes final : platform::HostFileSystem {
        int hostRename(const Location& from, const Location& to) override {
            errno = EXDEV;
            return fs::path(from.path).parent_path() == fs::path(to.path).parent_path()
                       ? HostFileSystem::hostRename(from, to)
                       : -1;
        }
        std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content) override {
            errno = ENOSPC;
            return isFull ? -1 : HostFileSystem::hostWrite(descriptor, content);
        }
        int hostRemove(const Location& at) override {
            errno = EIO;
            return keeps && !isTemporaryName(at.name) && at.name == "a" ? -1 : HostFileSystem::hostRemove(at);
        }
        bool isFull = false;
        bool keeps = false;
    } files;
    const std::string text(1'000'000, 'x');
    ASSERT_TRUE(files.createFolder(at("far")) && files.append(at("a"), text));
    const auto date = fs::file_time_type(std::chrono::hours(1000));
    fs::last_write_time(at("a"), date);
    files.isFull = true;
    EXPECT_EQ(files.move(at("a"), at("far/b")).error().code, ENOSPC);
    files.isFull = false;
    files.keeps = true;
    EXPECT_EQ(files.move(at("a"), at("far/b")).error().code, EIO);
    EXPECT_EQ(names(), (Names{"a", "far"}));
    EXPECT_TRUE(fs::is_empty(at("far")));
    files.keeps = false;
    EXPECT_EQ(files.move(at("far"), at("far/b")).error().code, EXDEV) << "a folder";
    ASSERT_TRUE(files.move(at("a"), at("far/b")));
    EXPECT_EQ(names(), Names{"far"});
    EXPECT_EQ(content("far/b"), text);
    EXPECT_EQ(files.status(at("far/b"))->permissions, 0600U);
    EXPECT_EQ(fs::last_write_time(at("far/b")), date);
}

}  // namespace
}  // namespace sentrova
