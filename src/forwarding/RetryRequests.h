// Requests of an administrator to send batches again that the server refused or that the spool keeps.
//
// sentrovactl writes a request as a file of the spool's folder and sends SIGHUP. The file is removed when the request
// has been served, so a request also survives until the next start. docs/formats.md describes the file.

#pragma once

#include "core/GlobalVariables.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/Spool.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// Safe from any thread.
class RetryRequests {
  public:
    // What the names of the request files begin with.
    static constexpr std::string_view kPrefix = ".retry-";

    // Writes a request for the files of these names, which must be UTF-8. Returns the request's path. `now` is in
    // seconds since 1970. Two processes never write the same file.
    static Result<std::string> write(FileSystem& files, const std::string& folder,
                                     const std::vector<std::string>& names, std::int64_t now);

    // All of it must outlive the object.
    RetryRequests(GlobalVariables& configuration, FileSystem& files, Spool& spool)
        : configuration_(configuration), files_(files), spool_(spool) {}

    // Serves all requests in the folder, and logs what becomes of each name. `durable` is null without the durable
    // mode. A kill between the two steps of a request is harmless: a name that was served before is not there any more.
    void serve(DurableSpool* durable) EXCLUDES(mutex_);

  private:
    void serveFile(const std::string& path, DurableSpool* durable) REQUIRES(mutex_);
    void retry(const std::string& name, DurableSpool* durable) REQUIRES(mutex_);
    void sendAgain(const std::string& keptName, DurableSpool* durable) REQUIRES(mutex_);
    std::string path(const std::string& name) const;

    GlobalVariables& configuration_;
    FileSystem& files_;
    Spool& spool_;

    // Held while requests are served, so that each is served once.
    Mutex mutex_{LockRank::transaction};
};

}  // namespace sentrova
