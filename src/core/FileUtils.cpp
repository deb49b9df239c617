#include "core/FileUtils.h"

#include "core/LogSource.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"
#include "platform/Directory.h"
#include "platform/SystemPath.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>

namespace sentrova {

namespace {

constexpr LogSource kLog("FileUtils");

FileSystem& fileSystem() {
    return Current<FileSystem>::get();
}

// Quotes the text as one word of a shell command. Escapes all characters that are special within double quotes.
std::string quoted(const std::string& text) {
    std::string word = "\"";
    for (const char c : text) {
        if (std::string_view("\"\\$`").find(c) != std::string_view::npos) {
            word += '\\';
        }
        word += c;
    }
    return word + '"';
}

std::string withoutExtension(const std::string& path) {
    const auto dot = path.rfind('.');
    const auto slash = path.rfind('/');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    return hasExtension ? path.substr(0, dot) : path;
}

// Deleting a file needs write permission on its folder.
bool isDeletable(const std::string& path) {
    const auto slash = path.rfind('/');
    const auto folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return ::access(folder.c_str(), W_OK) == 0;
}

std::int64_t sizeBelow(const std::string& folder, int depth) {
    // Deeper than any real path. Only a safeguard: symbolic links are not followed, so there are no circles.
    constexpr int kDeepest = 512;
    const auto names = fileSystem().names(folder);
    if (!names || depth > kDeepest) {
        return 0;
    }
    std::int64_t sum = 0;
    for (const auto& name : *names) {
        const auto path = folder + "/" + name;
        const auto status = fileSystem().linkStatus(path);
        if (!status) {
            continue;
        }
        sum += status->isFolder ? sizeBelow(path, depth + 1) : static_cast<std::int64_t>(status->allocatedSize);
    }
    return sum;
}

}  // namespace

bool FileUtils::doesFileExist(const std::string& path) {
    return fileSystem().exists(platform::systemPath(path));
}

bool FileUtils::createFile(const std::string& path) {
    const auto created = fileSystem().createFile(path);
    if (!created && created.error().code == EEXIST) {
        kLog.error("{} already exists", path);
    }
    return true;
}

bool FileUtils::createFolder(const std::string& path) {
    if (const auto own = fileSystem().checkLinks(path); !own) {
        kLog.error("{}", own.error().description);
        return false;
    }
    if (fileSystem().exists(path)) {
        kLog.error("{} already exists", path);
        return true;
    }
    kLog.info("Going to create folder {}", path);
    const auto created = fileSystem().createFolder(path);
    if (!created) {
        kLog.error("{}", created.error().description);
    }
    return static_cast<bool>(created);
}

std::optional<std::string> FileUtils::readFile(const std::string& path) {
    const auto hostPath = platform::systemPath(path);
    if (!fileSystem().exists(hostPath)) {
        kLog.error("File Doesnot Exists");
        return std::nullopt;
    }
    const auto content = fileSystem().read(hostPath);
    if (!content) {
        kLog.error("{}", content.error().description);
        return std::nullopt;
    }
    std::string text(content->begin(), content->end());
    if (!isValidUtf8(text)) {
        kLog.error("The file \"{}\" is not UTF-8 text", path);
        return std::nullopt;
    }
    return text;
}

bool FileUtils::writeToFile(const std::string& path, std::string_view content) {
    // Failures are not logged, because log lines may be written by this function.
    static_cast<void>(fileSystem().append(path, content));
    return true;
}

bool FileUtils::deleteFile(const std::string& path) {
    if (!fileSystem().linkStatus(path)) {
        kLog.info("File Doesnot Exists");
        return false;
    }
    if (!isDeletable(path)) {
        kLog.info("Wont be able to delete the file");
        return false;
    }
    if (const auto removed = fileSystem().remove(path); !removed) {
        kLog.info("{}", removed.error().description);
    }
    return true;
}

bool FileUtils::zipFile(const std::string& path) {
    const auto zip = withoutExtension(path) + ".zip";
    // The zip command follows every link, both to read and to write.
    for (const auto& each : {path, zip}) {
        if (const auto own = fileSystem().checkLinks(each); !own) {
            kLog.error("{} is not zipped: {}", path, own.error().description);
            return false;
        }
    }
    const auto command = "zip -j " + quoted(zip) + " " + quoted(path);
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    kLog.info("Output of ZipCommand {}", status);
    return status == 0;
}

std::optional<std::vector<std::string>> FileUtils::listOfFilesInPath(const std::string& folder) {
    const auto hostFolder = platform::systemPath(folder);
    if (const auto status = fileSystem().status(hostFolder); !status) {
        if (status.error().code != ENOENT) {
            kLog.error("{}", status.error().description);
        }
        return std::nullopt;
    }
    auto names = fileSystem().names(hostFolder);
    if (!names) {
        kLog.error("{}", names.error().description);
        return std::nullopt;
    }
    std::vector<std::pair<std::optional<Date>, std::string>> dated;
    dated.reserve(names->size());
    for (auto& name : *names) {
        auto date = modificationDate(folder + "/" + name);
        dated.emplace_back(date, std::move(name));
    }
    // Names without a date come first. Equal dates are ordered by name, so that the order is the same at each start.
    std::ranges::sort(dated);
    std::vector<std::string> sorted;
    sorted.reserve(dated.size());
    std::ranges::transform(dated, std::back_inserter(sorted), [](auto& entry) { return std::move(entry.second); });
    return sorted;
}

std::optional<std::vector<std::string>> FileUtils::listOfFileNamesInPath(const std::string& folder) {
    auto names = fileSystem().ownNames(folder);
    if (!names) {
        kLog.error("FileUtils listOfFileURLSInPath path doesnot exists");
        if (names.error().code != ENOENT) {
            kLog.error("{}", names.error().description);
        }
        return std::nullopt;
    }
    std::erase_if(*names, [](const auto& name) { return name.starts_with('.'); });
    return *std::move(names);
}

std::optional<std::vector<FileUrl>> FileUtils::listOfFileURLSInPath(const std::string& folder) {
    const auto names = listOfFileNamesInPath(folder);
    if (!names) {
        return std::nullopt;
    }
    std::vector<FileUrl> urls;
    std::ranges::transform(*names, std::back_inserter(urls),
                           [&folder](const auto& name) { return FileUrl(folder + "/" + name); });
    return urls;
}

std::int64_t FileUtils::getFoldersize(const std::string& folder) {
    // The folder itself may be a link that is followed. Links below it are not followed.
    return fileSystem().checkOwnFolder(folder) ? sizeBelow(folder, 0) : 0;
}

std::optional<Dictionary> FileUtils::getFileAttributes(const std::string& path) {
    const auto status = fileSystem().status(platform::systemPath(path));
    if (!status) {
        if (status.error().code == ENOENT) {
            kLog.error("{} doesnot exists", path);
        } else {
            kLog.error("Error while getfileattributes {}", status.error().description);
        }
        return std::nullopt;
    }
    Dictionary attributes{
        {kModificationDate, status->modificationDate},
        {kSize, status->size},
        {kOwnerAccountId, status->owner},
        {kGroupOwnerAccountId, status->group},
        {kPosixPermissions, status->permissions},
    };
    auto& directory = Current<platform::Directory>::get();
    if (auto owner = directory.userName(status->owner)) {
        attributes.set(kOwnerAccountName, std::move(*owner));
    }
    if (auto group = directory.groupName(status->group)) {
        attributes.set(kGroupOwnerAccountName, std::move(*group));
    }
    return attributes;
}

std::optional<Date> FileUtils::modificationDate(const std::string& path) {
    const auto status = fileSystem().status(platform::systemPath(path));
    return status ? std::optional(status->modificationDate) : std::nullopt;
}

std::int64_t FileUtils::sizeOfFile(const std::string& path) {
    const auto status = fileSystem().linkStatus(path);
    return status ? static_cast<std::int64_t>(status->size) : 0;
}

bool FileUtils::moveFileFrom(const std::string& source, const std::string& toFolder) {
    if (!fileSystem().exists(source)) {
        kLog.info("{} Source file does not exist.", source);
        return false;
    }
    const auto moved = fileSystem().move(source, toFolder);
    if (!moved) {
        kLog.info("Error moving file: {}", moved.error().description);
    }
    return static_cast<bool>(moved);
}

}  // namespace sentrova
