#include "fuzz/MemoryFileSystem.h"

#include "foundation/Clock.h"
#include "fuzz/Fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace sentrova::testing {

namespace fs = std::filesystem;

MemoryFileSystem::MemoryFileSystem(const std::string& root, std::string writableFolder)
    : current_(fs::current_path().string()), writableFolder_(std::move(writableFolder)) {
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const auto path = entry.path().string();
        if (entry.is_directory() || entry.is_regular_file()) {
            MutexLock lock(mutex_);
            original_[path] = made(entry.is_directory(), entry.is_directory() ? Data() : *FileSystem::read(path));
        }
    }
    install(this);
}

void MemoryFileSystem::reset() {
    MutexLock lock(mutex_);
    entries_ = original_;
    for (auto& [path, entry] : entries_) {
        entry.status.modificationDate = Clock::shared().wallTime();
    }
}

std::string MemoryFileSystem::resolved(const std::string& path) const {
    auto name = fs::path(path.starts_with('/') ? path : current_ + "/" + path).lexically_normal().string();
    if (name.ends_with('/')) {
        name.pop_back();
    }
    return name;
}

std::string MemoryFileSystem::writable(const std::string& path) const {
    auto name = resolved(path);
    require(name.starts_with(writableFolder_ + "/"), "nothing is written outside the agent's folder", name);
    return name;
}

MemoryFileSystem::Entry MemoryFileSystem::made(bool isFolder, std::span<const std::uint8_t> content) {
    Entry entry{{}, Data(content.begin(), content.end())};
    entry.status.modificationDate = Clock::shared().wallTime();
    entry.status.isFolder = isFolder;
    entry.status.isRegular = !isFolder;
    entry.status.identity = ++lastIdentity_;
    return entry;
}

Result<Done> MemoryFileSystem::add(const std::string& path, bool isFolder) {
    const auto name = writable(path);
    MutexLock lock(mutex_);
    return entries_.try_emplace(name, made(isFolder)).second ? Result<Done>(Done()) : posixError(EEXIST);
}

void MemoryFileSystem::put(const std::string& path, std::span<const std::uint8_t> content) {
    MutexLock lock(mutex_);
    entries_[resolved(path)] = made(false, content);
}

std::map<std::string, Data> MemoryFileSystem::files(const std::string& folder) {
    std::map<std::string, Data> found;
    for (const auto& name : names(folder).optional().value_or(std::vector<std::string>())) {
        if (auto content = read(folder + "/" + name)) {
            found.emplace(name, *std::move(content));
        }
    }
    return found;
}

Result<FileStatus> MemoryFileSystem::status(const std::string& path) {
    MutexLock lock(mutex_);
    const auto entry = entries_.find(resolved(path));
    if (entry == entries_.end()) {
        return posixError(ENOENT);
    }
    auto status = entry->second.status;
    status.size = status.allocatedSize = entry->second.content.size();
    return status;
}

Result<FileDescriptor> MemoryFileSystem::openForReading(const std::string& path) {
    const auto content = read(path);
    if (!content) {
        return content.error();
    }
    FileDescriptor file(::memfd_create("content", MFD_CLOEXEC));
    require(::write(file.get(), content->data(), content->size()) == std::ssize(*content), "memory is a file");
    ::lseek(file.get(), 0, SEEK_SET);
    return file;
}

Result<Data> MemoryFileSystem::read(const std::string& path) {
    MutexLock lock(mutex_);
    const auto entry = entries_.find(resolved(path));
    if (entry == entries_.end() || entry->second.status.isFolder) {
        return posixError(entry == entries_.end() ? ENOENT : EISDIR);
    }
    return entry->second.content;
}

Result<std::string> MemoryFileSystem::readText(const std::string& path) {
    const auto content = read(path);
    return content ? Result<std::string>(std::string(content->begin(), content->end())) : content.error();
}

// Nobody else is there.
Result<Done> MemoryFileSystem::restrictToOwner(const std::string& path) {
    const auto there = status(path);
    return there ? Result<Done>(Done()) : there.error();
}

Result<Done> MemoryFileSystem::writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                               Durability /*durability*/) {
    if (const auto there = status(writable(path)); there && there->isFolder) {
        return posixError(EISDIR);
    }
    put(path, content);
    return Done();
}

Result<Done> MemoryFileSystem::append(const std::string& path, std::string_view text) {
    const auto name = writable(path);
    const auto bytes = asBytes(text);
    MutexLock lock(mutex_);
    auto& entry = entries_.try_emplace(name, made(false)).first->second;
    if (entry.status.isFolder) {
        return posixError(EISDIR);
    }
    entry.content.insert(entry.content.end(), bytes.begin(), bytes.end());
    return Done();
}

Result<Done> MemoryFileSystem::remove(const std::string& path) {
    const auto name = writable(path);
    MutexLock lock(mutex_);
    std::erase_if(entries_,
                  [&name](const auto& entry) { return entry.first == name || entry.first.starts_with(name + "/"); });
    return Done();
}

Result<Done> MemoryFileSystem::move(const std::string& from, const std::string& to) {
    const auto source = writable(from);
    const auto target = writable(to);
    MutexLock lock(mutex_);
    const auto entry = entries_.find(source);
    if (entry == entries_.end() || entries_.contains(target)) {
        return posixError(entry == entries_.end() ? ENOENT : EEXIST);
    }
    auto node = entries_.extract(entry);
    node.key() = target;
    entries_.insert(std::move(node));
    return Done();
}

Result<std::vector<std::string>> MemoryFileSystem::names(const std::string& folder) {
    const auto prefix = resolved(folder) + "/";
    std::vector<std::string> names;
    MutexLock lock(mutex_);
    if (!entries_.contains(resolved(folder))) {
        return posixError(ENOENT);
    }
    for (auto at = entries_.lower_bound(prefix); at != entries_.end() && at->first.starts_with(prefix); ++at) {
        if (at->first.find('/', prefix.size()) == std::string::npos) {
            names.push_back(at->first.substr(prefix.size()));
        }
    }
    return names;
}

}  // namespace sentrova::testing
