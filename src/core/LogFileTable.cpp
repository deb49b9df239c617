#include "core/LogFileTable.h"

#include "core/GlobalConstants.h"
#include "core/Logger.h"
#include "core/PropertyListHandler.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/run/Current.h"
#include "foundation/value/Encodings.h"

#include <array>
#include <cerrno>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::array kCategories = {LogCategory::Config, LogCategory::Event, LogCategory::Communication};

std::string tableFile() {
    return fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::LOG_FILE_TABLE);
}

LogFileTable::Table tableOfDay(const std::string& date) {
    LogFileTable::Table table;
    for (const auto category : kCategories) {
        table.emplace(category,
                      fmt::format("{}/{}{}{}", GlobalConstants::LOG_PATH, category, date, LogFileTable::kExtension));
    }
    return table;
}

// Checks a path from the stored table: it must not leave the logs folder.
bool isLogFile(std::string_view path) {
    const auto folder = fmt::format("{}/", GlobalConstants::LOG_PATH);
    return path.starts_with(folder) && path.find('/', folder.size()) == std::string_view::npos &&
           path.ends_with(LogFileTable::kExtension);
}

void save(const LogFileTable::Table& table) {
    Dictionary dictionary;
    for (const auto& [category, path] : table) {
        dictionary.set(category, path);
    }
    PropertyListHandler handler;
    handler.updateDictionary(dictionary);
    handler.WriteToProplist(tableFile());
}

}  // namespace

LogFileTable::LogFileTable(FileSystem& files, Clock& clock, DateFormat& dates) : table_(load(files)) {
    if (table_.empty()) {
        table_ = tableOfDay(dates.format("yyyy-MM-dd", clock.wallTime()));
    }
}

// Reads the file directly and not through PropertyListHandler, which would log its failures: see LogFiles::LogFiles.
LogFileTable::Table LogFileTable::load(FileSystem& files) {
    const auto path = tableFile();
    const auto bytes = files.read(path);
    const auto stored =
        bytes ? PropertyList::parse(*bytes, Current<Encodings>::orNull()) : Result<Value>(bytes.error());
    const auto* const dictionary = stored ? stored->dictionary() : nullptr;
    if (!stored && stored.error().code != ENOENT) {
        problem_ = fmt::format("Property list {} is not read: {}", path, stored.error().description);
    }
    Table table;
    for (const auto category : kCategories) {
        const auto* name = dictionary ? (*dictionary)[category].string() : nullptr;
        if (name && isLogFile(*name)) {
            table.emplace(category, *name);
        }
    }
    return table;
}

std::string LogFileTable::fileFor(std::string_view category, const std::string& date) {
    MutexLock lock(mutex_);
    if (const auto found = table_.find(category);
        found != table_.end() && found->second.find(date) != std::string::npos) {
        return found->second;
    }
    table_ = tableOfDay(date);
    const auto found = table_.find(category);
    auto path = found == table_.end() ? std::string() : found->second;
    const auto present = table_;
    // Saves without the lock, because a failure is logged, and logging needs the table.
    lock.unlock();
    save(present);
    return path;
}

LogFileTable::Table LogFileTable::copy() {
    MutexLock lock(mutex_);
    return table_;
}

void LogFileTable::replace(const std::string& category, const std::string& path) {
    MutexLock lock(mutex_);
    table_[category] = path;
    const auto present = table_;
    lock.unlock();
    save(present);
}

}  // namespace sentrova
