// Hands over a request to send batches again.

#pragma once

#include "control/Console.h"
#include "control/InstallationFolder.h"
#include "control/SpoolContent.h"
#include "foundation/files/FileSystem.h"

#include <string>
#include <vector>

namespace sentrova::control {

class SpoolRetry {
  public:
    // All of it must outlive the object.
    SpoolRetry(Console& console, const InstallationFolder& installation, FileSystem& files, const SpoolContent& content)
        : console_(console), installation_(installation), files_(files), content_(content) {}

    // Chooses files by name, or all that were refused or not delivered. What becomes of each other file is told.
    void choose(const std::vector<std::string>& names);
    void chooseAll();
    // Writes the request and waits until a running agent has served it. Returns the exit status.
    int request();

  private:
    void choose(const SpooledFile& file);
    int handOver(const std::string& request);
    int await(const std::string& request);
    int outcome();
    void fail(const std::string& problem);

    Console& console_;
    const InstallationFolder& installation_;
    FileSystem& files_;
    const SpoolContent& content_;
    std::vector<std::string> chosen_;
    bool hasFailed_ = false;
};

}  // namespace sentrova::control
