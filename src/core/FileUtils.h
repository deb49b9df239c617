// The agent's helpers for files and folders. They log failures and do not throw. Safe from any thread: when several
// threads append to one file, their texts do not mix.

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

    // True for files and folders.
    static bool doesFileExist(const std::string& path);
    // Does not change an existing file. Always returns true.
    static bool createFile(const std::string& path);
    // Does not create parent folders. Returns true also if the folder already exists.
    static bool createFolder(const std::string& path);
    // The whole content. Absent if it cannot be read or is not UTF-8.
    static std::optional<std::string> readFile(const std::string& path);
    // Appends, and creates a missing file. Always returns true; failures are not logged.
    static bool writeToFile(const std::string& path, std::string_view content);
    // Returns true if a removal was attempted, even if it failed.
    static bool deleteFile(const std::string& path);
    // Zips the file with the external command, into the same folder and under the same name with the extension "zip".
    // Keeps the file. Returns whether the command succeeded.
    static bool zipFile(const std::string& path);

    // The names in a folder, hidden ones included, oldest modification first. Absent if it cannot be listed.
    static std::optional<std::vector<std::string>> listOfFilesInPath(const std::string& folder);
    // The entries of a folder without hidden ones, in no particular order. Absent if it cannot be listed.
    static std::optional<std::vector<FileUrl>> listOfFileURLSInPath(const std::string& folder);
    // The same as plain names, which take a third of the memory.
    static std::optional<std::vector<std::string>> listOfFileNamesInPath(const std::string& folder);
    // The disk space in bytes of all files in and below a folder. 0 for anything but a folder.
    static std::int64_t getFoldersize(const std::string& folder);

    // Absent if the file is missing or its attributes cannot be read. Contains account names only if they are known.
    static std::optional<Dictionary> getFileAttributes(const std::string& path);
    // Single attributes. Failures are not logged: the date is then absent and the size 0.
    static std::optional<Date> modificationDate(const std::string& path);
    static std::int64_t sizeOfFile(const std::string& path);

    // The destination is the full path of the file and must not exist. Returns whether the file was moved.
    static bool moveFileFrom(const std::string& source, const std::string& toFolder);
};

}  // namespace sentrova
