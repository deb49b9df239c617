#include "platform/volume/VolumeDirectory.h"

#include "foundation/formats/PropertyList.h"
#include "foundation/run/Mutex.h"

#include <array>
#include <charconv>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace sentrova::platform {

namespace {

constexpr std::string_view kNodeFolder = "/var/db/dslocal/nodes/Default/";
constexpr std::string_view kExtension = ".plist";

// The standard name of an attribute, and its name in the files of a Mac's local directory node.
struct AttributeName {
    std::string_view standard;
    std::string_view native;
};
constexpr std::array<AttributeName, 5> kAttributes = {{
    {kAttributeRecordName, "name"},
    {kAttributeUniqueId, "uid"},
    {kAttributeSmbSid, "smb_sid"},
    {kAttributePrimaryNtDomain, "primary_ntdomain"},
    {"dsAttrTypeStandard:PrimaryGroupID", "gid"},
}};
constexpr std::string_view kGroupId = "dsAttrTypeStandard:PrimaryGroupID";

std::vector<std::string> textsOf(const Value& values) {
    std::vector<std::string> texts;
    if (const auto* array = values.array()) {
        for (const auto& value : *array) {
            if (const auto* text = value.string()) {
                texts.push_back(*text);
            }
        }
    }
    return texts;
}

// Absent if the file is missing or does not hold a dictionary.
std::optional<DirectoryRecord> readRecord(FileSystem& files, const std::string& path) {
    const auto bytes = files.read(path);
    if (!bytes) {
        return std::nullopt;
    }
    const auto list = PropertyList::parse(*bytes);
    const auto* const root = list ? list->dictionary() : nullptr;
    if (!root) {
        return std::nullopt;
    }
    DirectoryRecord record;
    for (const auto& [standard, native] : kAttributes) {
        const auto* value = root->find(standard);
        value = value ? value : root->find(native);
        auto texts = value ? textsOf(*value) : std::vector<std::string>();
        if (!texts.empty()) {
            record.emplace(standard, std::move(texts));
        }
    }
    return record;
}

}  // namespace

// One folder of the node, for look-ups by id: users or groups.
class VolumeDirectory::NodeFolder {
  public:
    NodeFolder(FileSystem& files, const Folder& volume, std::string_view kind, std::string_view idAttribute)
        : files_(files), volume_(volume), kind_(kind), idAttribute_(idAttribute) {}

    std::string path() const { return volume_() + std::string(kNodeFolder) + kind_; }

    // The record name of an id. Reads the folder again if its modification date has changed.
    std::optional<std::string> nameOf(std::uint32_t id) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto folder = path();
        const auto status = files_.status(folder);
        if (!status) {
            return std::nullopt;
        }
        if (folder != readFrom_ || status->modificationDate != readAt_) {
            names_ = readNames(folder);
            readFrom_ = folder;
            readAt_ = status->modificationDate;
        }
        const auto found = names_.find(id);
        return found == names_.end() ? std::nullopt : std::optional(found->second);
    }

  private:
    std::map<std::uint32_t, std::string> readNames(const std::string& folder) const {
        std::map<std::uint32_t, std::string> names;
        const auto files = files_.names(folder);
        if (!files) {
            return names;
        }
        for (const auto& file : *files) {
            if (!file.ends_with(kExtension)) {
                continue;
            }
            const auto record = readRecord(files_, folder + "/" + file);
            const auto ids = record ? record->find(std::string(idAttribute_)) : DirectoryRecord::const_iterator();
            if (!record || ids == record->end()) {
                continue;
            }
            const auto named = record->find(kAttributeRecordName);
            const auto name =
                named == record->end() ? file.substr(0, file.size() - kExtension.size()) : named->second.front();
            // Ids are stored as signed numbers: the user nobody has -2.
            std::int64_t id = 0;
            const auto& text = ids->second.front();
            if (std::from_chars(text.data(), text.data() + text.size(), id).ec == std::errc()) {
                names.emplace(static_cast<std::uint32_t>(id), name);
            }
        }
        return names;
    }

    FileSystem& files_;
    const Folder& volume_;
    const std::string kind_;
    const std::string_view idAttribute_;
    Mutex mutex_{LockRank::owner};
    std::string readFrom_ GUARDED_BY(mutex_);
    Date readAt_ GUARDED_BY(mutex_);
    std::map<std::uint32_t, std::string> names_ GUARDED_BY(mutex_);
};

// Remembers missing files for a millisecond. A trail may name the same unknown user thousands of times in a row, and
// each look at the disk costs as much as the rest of the event.
class VolumeDirectory::MissingFiles {
  public:
    bool contains(const std::string& path, Clock::Monotonic now) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (now >= forgetAt_) {
            paths_.clear();
        }
        return paths_.contains(path);
    }

    void add(const std::string& path, Clock::Monotonic now) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (paths_.empty()) {
            forgetAt_ = now + kRemembered;
        }
        paths_.insert(path);
    }

  private:
    static constexpr std::chrono::milliseconds kRemembered{1};

    Mutex mutex_;
    // Bounded by the number of look-ups within kRemembered.
    std::unordered_set<std::string> paths_ GUARDED_BY(mutex_);
    Clock::Monotonic forgetAt_ GUARDED_BY(mutex_);
};

VolumeDirectory::VolumeDirectory(FileSystem& files, Clock& clock, Folder volume)
    : files_(files),
      clock_(clock),
      volume_(std::move(volume)),
      missing_(std::make_unique<MissingFiles>()),
      users_(std::make_unique<NodeFolder>(files, volume_, "users", kAttributeUniqueId)),
      groups_(std::make_unique<NodeFolder>(files, volume_, "groups", kGroupId)) {}

VolumeDirectory::~VolumeDirectory() = default;

std::optional<std::string> VolumeDirectory::userName(std::uint32_t id) {
    return users_->nameOf(id);
}

std::optional<std::string> VolumeDirectory::groupName(std::uint32_t id) {
    return groups_->nameOf(id);
}

Result<std::vector<DirectoryRecord>> VolumeDirectory::usersNamed(const std::string& name) {
    std::vector<DirectoryRecord> records;
    // The name comes from an audit record, so it must not be used as a path.
    if (name.empty() || name.starts_with('.') || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        return records;
    }
    const auto path = users_->path() + "/" + name + std::string(kExtension);
    const auto now = clock_.monotonicTime();
    if (missing_->contains(path, now)) {
        return records;
    }
    if (auto record = readRecord(files_, path)) {
        record->try_emplace(kAttributeRecordName, std::vector<std::string>{name});
        records.push_back(std::move(*record));
    } else {
        missing_->add(path, now);
    }
    return records;
}

}  // namespace sentrova::platform
