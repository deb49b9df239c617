// A file system that a test can replace by another for a while.

#pragma once

#include "foundation/files/FileSystem.h"
#include "platform/posix/HostFileSystem.h"

#include <atomic>

namespace sentrova::testing {

// Forwards every call to the host's file system, or to its replacement.
class SwitchedFileSystem final : public FileSystem {
  public:
    // Replaces the host's file system as long as the object lives.
    class Replacement {
      public:
        explicit Replacement(FileSystem& by) : former_(replacement_.exchange(&by)) {}
        ~Replacement() { replacement_ = former_; }
        Replacement(const Replacement&) = delete;
        Replacement& operator=(const Replacement&) = delete;

      private:
        FileSystem* const former_;
    };

    Result<FileStatus> status(const std::string& path) override { return to().status(path); }
    Result<FileStatus> linkStatus(const std::string& path) override { return to().linkStatus(path); }
    Result<FileDescriptor> openForReading(const std::string& path) override { return to().openForReading(path); }
    Result<Data> read(const std::string& path) override { return to().read(path); }
    Result<std::string> readText(const std::string& path) override { return to().readText(path); }
    Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                 Durability durability) override {
        return to().writeAtomically(path, content, durability);
    }
    Result<Done> append(const std::string& path, std::string_view text) override { return to().append(path, text); }
    Result<std::unique_ptr<OpenFile>> openForWriting(const std::string& path) override {
        return to().openForWriting(path);
    }
    Result<Done> flushFile(const std::string& path) override { return to().flushFile(path); }
    Result<bool> endsWithLineFeed(const std::string& path) override { return to().endsWithLineFeed(path); }
    Result<Done> createFile(const std::string& path) override { return to().createFile(path); }
    Result<FileDescriptor> lock(const std::string& path, std::string_view content) override {
        return to().lock(path, content);
    }
    Result<Done> createFolder(const std::string& path) override { return to().createFolder(path); }
    Result<Done> restrictToOwner(const std::string& path) override { return to().restrictToOwner(path); }
    Result<Done> remove(const std::string& path) override { return to().remove(path); }
    Result<Done> move(const std::string& from, const std::string& target) override { return to().move(from, target); }
    Result<std::vector<std::string>> names(const std::string& folder) override { return to().names(folder); }
    Result<std::vector<std::string>> ownNames(const std::string& folder) override { return to().ownNames(folder); }
    Result<Done> checkOwnFolder(const std::string& folder) override { return to().checkOwnFolder(folder); }
    Result<Done> checkLinks(const std::string& path) override { return to().checkLinks(path); }
    bool isTemporaryName(std::string_view name) const override { return host_.isTemporaryName(name); }
    std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) override {
        return to().readOnce(descriptor, into);
    }

  private:
    FileSystem& to() {
        auto* const replacement = replacement_.load();
        return replacement ? *replacement : host_;
    }

    static inline std::atomic<FileSystem*> replacement_{nullptr};
    platform::HostFileSystem host_;
};

}  // namespace sentrova::testing
