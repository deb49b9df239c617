// The agent's helpers for files and folders. Each checks what it is given and reports problems through the log instead
// of raising. Safe from any thread; appends from several threads to one file keep their lines whole.

#pragma once

#include "foundation/files/FileUrl.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

class FileUtils {
  public:
    FileUtils() = delete;

    // The keys of getFileAttributes.
    static constexpr const char* kModificationDate = "NSFileModificationDate";
    static constexpr const char* kSize = "NSFileSize";
    static constexpr const char* kOwnerAccountName = "NSFileOwnerAccountName";
    static constexpr const char* kOwnerAccountId = "NSFileOwnerAccountID";
    static constexpr const char* kGroupOwnerAccountName = "NSFileGroupOwnerAccountName";
    static constexpr const char* kGroupOwnerAccountId = "NSFileGroupOwnerAccountID";
    static constexpr const char* kPosixPermissions = "NSFilePosixPermissions";

    // Files and folders alike.
    static bool doesFileExist(const std::string& path);
    // Leaves a file that exists as it is. Always true.
    static bool createFile(const std::string& path);
    // Without its parent folders. True also when the folder exists.
    static bool createFolder(const std::string& path);
    // The whole content; nothing when it cannot be read or is not UTF-8.
    static std::optional<std::string> readFile(const std::string& path);
    // Appends, making the file when there is none. Always true.
    static bool writeToFile(const std::string& path, std::string_view content);
    // True once a removal was attempted, whatever came of it.
    static bool deleteFile(const std::string& path);
    // Makes a zip file beside the file, named as it with the extension "zip", with the external command. The file
    // stays.
    static bool zipFile(const std::string& path);

    // The names in a folder, hidden ones included, oldest modification first; nothing when it cannot be listed.
    static std::optional<std::vector<std::string>> listOfFilesInPath(const std::string& folder);
    // What is in a folder, without hidden entries, in no particular order; nothing when it cannot be listed.
    static std::optional<std::vector<FileUrl>> listOfFileURLSInPath(const std::string& folder);
    // The same as names alone, a third of the memory.
    static std::optional<std::vector<std::string>> listOfFileNamesInPath(const std::string& folder);
    // The space in bytes that the files in and below a folder take up on the disk; 0 for anything but a folder.
    static std::int64_t getFoldersize(const std::string& folder);

    // Nothing when the file is missing or its attributes cannot be read. Account names are there only when known.
    static std::optional<Dictionary> getFileAttributes(const std::string& path);
    // Single attributes, without a message when there are none. A missing file has size 0.
    static std::optional<Date> modificationDate(const std::string& path);
    static std::int64_t sizeOfFile(const std::string& path);

    // The destination is a full path, and must not exist.
    static bool moveFileFrom(const std::string& source, const std::string& toFolder);
};

}  // namespace sentrova
