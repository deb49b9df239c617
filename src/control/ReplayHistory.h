// Who was logged on just before a time, for the login history of an agent that reads again from that time on.

#pragma once

#include "collection/EventSelection.h"
#include "collection/RecordEvents.h"
#include "control/InstallationFolder.h"
#include "control/ReportContext.h"
#include "foundation/files/FileSystem.h"
#include "foundation/formats/KeyedArchive.h"
#include "foundation/value/Value.h"
#include "platform/Directory.h"
#include "platform/posix/SystemClock.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace sentrova::control {

// The agent drops the history before its stored time. Without the user who was logged on then, the first Touch ID
// records that are read again would name nobody. Not thread-safe.
class ReplayHistory {
  public:
    // `eventsToRead` as in the configuration. `since` is in seconds since 1970. The installation and the file system
    // must outlive the object.
    ReplayHistory(const InstallationFolder& installation, FileSystem& files,
                  const std::optional<std::string>& eventsToRead, std::uint64_t since);

    // Takes a record of a trail. Those at or after `since` are ignored: the agent takes them itself.
    void take(std::span<const std::uint8_t> record) { events_.read(record); }

    // Adds the latest entry before `since`, of the records and of the file, to the file as one of `time` (seconds since
    // 1970). Returns the reason for a failure, in words. The file is as before then.
    std::optional<std::string> store(std::uint64_t time) const;

  private:
    class Latest final : public ReportContext {
      public:
        using ReportContext::ReportContext;

        void addToLoginHistory(const Dictionary& entry, double time) override;
        const KeyedArchive::Content& entries() const { return entries_; }

      private:
        // At most one.
        KeyedArchive::Content entries_;
    };

    const InstallationFolder& installation_;
    FileSystem& files_;
    const std::uint64_t since_;
    const EventSelection selection_;
    platform::SystemClock clock_;
    const std::unique_ptr<platform::Directory> directory_;
    Latest context_;
    RecordEvents events_;
};

}  // namespace sentrova::control
