#include "service/ConfigurationFindings.h"

#include "collection/EventSelection.h"
#include "core/GlobalConstants.h"
#include "forwarding/SecurityUtil.h"
#include "operations/DailyTime.h"
#include "service/Agent.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace sentrova {

namespace {

std::vector<ConfigurationFinding> checkLogFileTable(FileSystem& files, const std::string& folder) {
    const auto table = ConfigurationFile::at(files, fmt::format("{}/{}", folder, GlobalConstants::LOG_FILE_TABLE));
    if (table.state != ConfigurationFile::State::damaged) {
        return {};
    }
    return {{std::string(GlobalConstants::LOG_FILE_TABLE), std::nullopt, fmt::format("damaged: {}", table.reason),
             "the log files of the day of the start are used"}};
}

}  // namespace

std::optional<std::string> decryptedIdentity(const std::string& cipherText, const std::string& passPhrase) {
    const auto plain = SecurityUtil::decrypt(cipherText, passPhrase, "");
    return plain ? *plain : std::nullopt;
}

ConfigurationRules configurationRules(const TaskRegistry::Classes& tasks) {
    ConfigurationRules rules{.events = EventSelection::knownNames(),
                             .tasks = {},
                             .isTimeOfDay = [](std::string_view text) { return DailyTime::parse(text).has_value(); },
                             .decrypt = decryptedIdentity};
    for (const auto& [className, methods] : tasks) {
        auto& names = rules.tasks[className];
        std::ranges::transform(methods, std::back_inserter(names), [](const auto& method) { return method.first; });
    }
    return rules;
}

std::vector<ConfigurationFinding> startFindingsIn(FileSystem& files, const std::string& folder) {
    return checkConfiguration(ConfigurationFiles::in(files, folder), configurationRules(Agent::taskClasses()));
}

std::vector<ConfigurationFinding> findingsIn(FileSystem& files, const std::string& folder) {
    const auto content = ConfigurationFiles::in(files, folder);
    const auto mistakes = checkConfiguration(content, configurationRules(Agent::taskClasses()));
    const auto misspelled = findMisspelledKeys(content);
    std::vector<ConfigurationFinding> findings;
    for (const auto file : {GlobalConstants::SERVER_INFO_FILE, GlobalConstants::MY_CONFIGURATIONS_FILE,
                            GlobalConstants::SCHEDULES_FILE}) {
        for (const auto& part : {mistakes, misspelled}) {
            std::ranges::copy_if(part, std::back_inserter(findings),
                                 [file](const auto& finding) { return finding.file == file; });
        }
    }
    std::ranges::move(checkLogFileTable(files, folder), std::back_inserter(findings));
    return findings;
}

}  // namespace sentrova
