// The content of an archive for a support case. docs/formats.md describes it.

#pragma once

#include "control/ControlHost.h"
#include "control/DiagnoseFile.h"
#include "control/DiagnoseMask.h"
#include "control/InstallationFolder.h"
#include "control/TarWriter.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace sentrova::control {

// Reads the installation and asks its agent, and changes neither. A part that is missing or cannot be read is replaced
// by a member that says why. Everything passes the mask on its way into the archive. Not thread-safe.
class DiagnoseArchive {
  public:
    // The objects must outlive this one.
    DiagnoseArchive(ControlHost& host, const InstallationFolder& installation, DiagnoseMask::Events events);

    // Asks the questions, for a minute at most, and then writes the archive. `folder` is the folder that its members
    // are in. Returns the names of the members, without the folder. Throws an exception that names the file if it
    // cannot be written; nothing has changed then.
    std::vector<std::string> write(const std::string& path, std::string folder);

  private:
    void askAll();
    std::string probeText() const;
    std::string versionsText(const Dictionary& status) const;
    std::string auditText() const;
    std::string listing() const;
    std::string listingOf(const std::string& folder, const Result<std::vector<std::string>>& names) const;
    void addConfiguration(std::string_view name);
    void addLogs(const std::string& folder, const std::string& into);
    void addLog(const std::string& path, const std::string& name);
    void addZippedLog(const std::string& path, const std::string& name);
    void addText(const std::string& path, const std::string& name);
    void addAuditSettings();

    void add(const std::string& name, const std::string& masked, std::optional<Date> modified = std::nullopt);
    void addReason(const std::string& name, const std::string& reason);
    // Adds a log that `read` brings piece by piece, until an empty piece.
    void addPieces(const std::string& name, const std::string& path, const std::function<std::string()>& read);
    void begin(const std::string& name, std::optional<Date> modified);

    FileSystem& files_;
    const InstallationFolder& installation_;
    const DiagnoseMask::Events events_;
    const DiagnoseMask mask_;
    // The members that need no file, with their names.
    std::vector<std::pair<std::string, std::string>> answers_;
    // While the archive is written.
    std::optional<DiagnoseFile> file_;
    std::optional<TarWriter> tar_;
    std::string folder_;
    std::vector<std::string> members_;
};

}  // namespace sentrova::control
