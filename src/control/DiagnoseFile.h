// The archive's file while it is written.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <signal.h>

#include <string>

namespace sentrova::control {

// Writes beside the file, under a temporary name, for the owner only. An end before `keep` leaves the folder as it was.
// Ctrl-C and the signals of an orderly end are held back meanwhile: `checkSignals` lets the program remove its
// temporary file before it obeys them. One object at a time, for one thread.
class DiagnoseFile {
  public:
    // Throws an exception that names the file if the file cannot be created, or if a folder or a device has its name.
    explicit DiagnoseFile(const std::string& path);
    ~DiagnoseFile();
    DiagnoseFile(const DiagnoseFile&) = delete;
    DiagnoseFile& operator=(const DiagnoseFile&) = delete;

    int descriptor() const { return file_.get(); }
    // Throws std::runtime_error if the program shall end.
    void checkSignals() const;
    // Gives the file its name. It replaces a file, or a symbolic link, that has the name. Throws std::system_error.
    void keep();

  private:
    class HeldSignals {
      public:
        HeldSignals();
        ~HeldSignals();
        HeldSignals(const HeldSignals&) = delete;
        HeldSignals& operator=(const HeldSignals&) = delete;

      private:
        sigset_t before_{};
    };

    [[noreturn]] void fail(int number) const;

    // The first member, so that the signals come after the clean-up.
    const HeldSignals held_;
    const std::string path_;
    std::string name_;
    std::string temporary_;
    FileDescriptor folder_;
    FileDescriptor file_;
};

}  // namespace sentrova::control
