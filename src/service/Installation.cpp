#include "service/Installation.h"

#include "core/LogSource.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <fmt/format.h>

namespace sentrova {

namespace {
constexpr LogSource kLog("AgentServiceHandler");
}  // namespace

void Installation::checkFolder(const std::string& folder) {
    if (const auto links = files_.checkLinks(folder); !links) {
        const auto problem = fmt::format("The folder {} is not used, and nothing in it is read or written: {}", folder,
                                         links.error().description);
        kLog.error("{}", problem);
        // Also on standard error, because the log folder itself may be the link.
        fmt::print(stderr, "{}\n", problem);
        return;
    }
    const auto status = files_.status(folder);
    if (!status) {
        if (status.error().code != ENOENT) {
            kLog.error("{}", status.error().description);
        }
    } else if (status->owner != ::geteuid() || (status->permissions & (S_IWGRP | S_IWOTH)) != 0) {
        kLog.error("Users other than the agent's own can change the folder {}, and thereby what the agent does",
                   folder);
    }
}

void Installation::makeMissingFolder(const std::string& folder) {
    const auto made = files_.createFolder(folder);
    if (made) {
        kLog.info("The folder {} was missing and has been created", folder);
    } else if (made.error().code != EEXIST) {
        kLog.error("{}", made.error().description);
    }
}

void Installation::removeUnfinishedFiles(const std::string& folder) {
    const auto names = files_.ownNames(folder);
    if (!names) {
        // checkFolder has already logged a link that is not followed.
        if (names.error().code != ENOENT && names.error().code != ELOOP) {
            kLog.error("{}", names.error().description);
        }
        return;
    }
    for (const auto& name : *names) {
        if (files_.isTemporaryName(name)) {
            kLog.info("Removing the unfinished file {}/{}", folder, name);
            static_cast<void>(files_.remove(folder + "/" + name));
        }
    }
}

}  // namespace sentrova
