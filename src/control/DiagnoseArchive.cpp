#include "control/DiagnoseArchive.h"

#include "control/AddressReport.h"
#include "control/StatusFormats.h"
#include "control/StatusReport.h"
#include "control/TimeArgument.h"
#include "core/GlobalConstants.h"
#include "core/LogFileTable.h"
#include "foundation/formats/Json.h"
#include "foundation/formats/PropertyList.h"
#include "platform/AuditCondition.h"
#include "platform/OperatingSystem.h"
#include "platform/SystemPath.h"
#include "platform/posix/Process.h"
#include "service/CommandLine.h"
#include "service/ConfigurationFindings.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <numeric>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::size_t kPiece = 1024 * 1024;
// A file without messages is masked line by line in parts of this size.
constexpr std::size_t kLongestMessage = 64 * kPiece;
// Where launchd puts the agent's standard error.
constexpr const char* kStandardError = "/var/log/com.kelvark.vantorix.sentrova.agent.log";
constexpr const char* kSecurity = "/etc/security";
constexpr const char* kTrails = "/var/audit";
constexpr std::array kAuditFiles = {"audit_control", "audit_class", "audit_event", "audit_user", "audit_warn"};

std::string textOf(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// What the function returns, or why it failed.
template <class Function>
std::string attempted(const Function& function) {
    try {
        return function();
    } catch (const std::exception& exception) {
        return fmt::format("not known: {}\n", exception.what());
    }
}

// unzip takes "*", "?" and "[" in the file's name for a pattern, except in brackets.
std::string literally(const std::string& path) {
    const auto name = path.rfind('/') + 1;
    auto result = path.substr(0, name);
    for (const char c : path.substr(name)) {
        result += std::string_view("*?[").find(c) == std::string_view::npos ? std::string{c} : std::string{'[', c, ']'};
    }
    return result;
}

std::string outputOf(const std::string& program, std::vector<std::string> arguments) {
    platform::Process process(program, std::move(arguments));
    process.launch();
    auto output = textOf(process.readDataToEndOfFile());
    process.waitUntilExit();
    return output;
}

}  // namespace

DiagnoseArchive::DiagnoseArchive(ControlHost& host, const InstallationFolder& installation, DiagnoseMask::Events events)
    : files_(host.files()),
      installation_(installation),
      events_(events),
      mask_(ConfigurationFiles::in(files_, installation.conf()), Current<Encodings>::get()) {}

std::vector<std::string> DiagnoseArchive::write(const std::string& path, std::string folder) {
    folder_ = std::move(folder);
    askAll();
    file_.emplace(path);
    try {
        tar_.emplace(file_->descriptor());
        for (const auto& [name, text] : answers_) {
            add(name, mask_.text(text));
        }
        for (const auto name : {GlobalConstants::SERVER_INFO_FILE, GlobalConstants::MY_CONFIGURATIONS_FILE,
                                GlobalConstants::SCHEDULES_FILE}) {
            addConfiguration(name);
        }
        addLogs(installation_.logs(), "logs");
        addLogs(installation_.logArchive(), "logs/archive");
        addAuditSettings();
        tar_->finish();
        file_->keep();
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), fmt::format("{} cannot be written", path));
    }
    file_.reset();
    return std::move(members_);
}

void DiagnoseArchive::askAll() {
    const auto now = std::time(nullptr);
    Dictionary status;
    answers_.emplace_back("status.txt", attempted([&] {
                              status = StatusReport::of(installation_, files_, now).json();
                              return statusText(status, now, Console(Console::Plain{}));
                          }));
    answers_.emplace_back("status.json", attempted([&] {
                              const auto text = Json::write(status);
                              return text ? *text + "\n" : text.error().description + "\n";
                          }));
    answers_.emplace_back(
        "check.txt", attempted([&] {
            const auto findings = findingsIn(files_, installation_.conf());
            return std::accumulate(
                findings.begin(), findings.end(), std::string(findings.empty() ? "No finding.\n" : ""),
                [](auto text, const auto& finding) { return std::move(text) + finding.text() + "\n"; });
        }));
    answers_.emplace_back("probe.txt", attempted([&] { return probeText(); }));
    answers_.emplace_back("versions.txt", attempted([&] { return versionsText(status); }));
    answers_.emplace_back("files.txt", attempted([&] { return listing(); }));
    answers_.emplace_back("audit/state.txt", attempted([&] { return auditText(); }));
}

std::string DiagnoseArchive::probeText() const {
    const auto configuration = configurationIn(files_, installation_.conf());
    if (!configuration) {
        return configuration.error().description + "\n";
    }
    std::string text;
    probeAddresses(*configuration, [&](const AddressReport& report) { text += report.line() + "\n"; });
    return text.empty() ? std::string(kNoAddress) + "\n" : text;
}

std::string DiagnoseArchive::versionsText(const Dictionary& status) const {
    const auto version = platform::operatingSystemVersion(files_);
    utsname host{};
    ::uname(&host);
    return fmt::format("sentrovactl {}\nagent {}\nmacOS {}\nkernel {} {} {}\nmade {}\n", kAgentVersion,
                       status["agent_version"].string() ? status["agent_version"].description() : "not known",
                       version ? fmt::format("{}.{}.{}", version->major, version->minor, version->patch) : "not known",
                       &host.sysname[0], &host.release[0], &host.machine[0], timeText(std::time(nullptr)));
}

// What the host says about auditing, and its trails.
std::string DiagnoseArchive::auditText() const {
    using State = platform::AuditState;
    const auto state = platform::AuditCondition::make()->state();
    auto text = std::string("auditing: ");
    if (!state) {
        text += state.error().description;
    } else {
        text += *state == State::on ? "on" : *state == State::off ? "off" : "there is no audit device";
    }
    const auto trails = platform::systemPath(kTrails);
    text += "\n\n" + listingOf(trails, files_.names(trails));
    const std::string launchctl = "/bin/launchctl";
    if (::access(launchctl.c_str(), X_OK) == 0) {
        text += attempted([&] { return "\n" + outputOf(launchctl, {"print", "system/com.apple.auditd"}); });
    }
    return text;
}

std::string DiagnoseArchive::listing() const {
    std::string text;
    for (const auto& folder : {installation_.root(), installation_.bin(), installation_.conf(), installation_.logs(),
                               installation_.logArchive(), installation_.spool()}) {
        text += listingOf(folder, files_.ownNames(folder)) + "\n";
    }
    return text;
}

// A line per file: permissions, owner and group, size, time, name.
std::string DiagnoseArchive::listingOf(const std::string& folder, const Result<std::vector<std::string>>& names) const {
    auto text = folder + ":\n";
    if (!names) {
        return text + names.error().description + "\n";
    }
    auto sorted = *names;
    std::ranges::sort(sorted);
    for (const auto& name : sorted) {
        const auto status = files_.linkStatus(folder + "/" + name);
        if (!status) {
            text += fmt::format("{}: {}\n", name, status.error().description);
            continue;
        }
        const char* const kind = status->isFolder         ? "folder"
                                 : status->isSymbolicLink ? "link"
                                 : status->isRegular      ? "file"
                                                          : "other";
        text += fmt::format("{:6} {:04o} {:>5} {:>5} {:>12} {} {}\n", kind, status->permissions, status->owner,
                            status->group, status->size, timeText(epochSeconds(status->modificationDate)), name);
    }
    return text;
}

// As XML, whatever its form was, since only then the mask sees its texts.
void DiagnoseArchive::addConfiguration(std::string_view name) {
    const auto member = fmt::format("conf/{}", name);
    const auto path = fmt::format("{}/{}", installation_.conf(), name);
    const auto bytes = files_.read(path);
    if (!bytes) {
        addReason(member, bytes.error().description);
        return;
    }
    const auto status = files_.status(path);
    const auto modified = status ? std::optional(status->modificationDate) : std::nullopt;
    const auto list = PropertyList::parse(*bytes, &Current<Encodings>::get());
    const auto xml = list ? PropertyList::writeXml(mask_.settings(*list)) : list.error();
    if (xml) {
        add(member, mask_.text(textOf(*xml)), modified);
    } else if (std::ranges::find(*bytes, 0) == bytes->end()) {
        add(member, mask_.damagedList(textOf(*bytes)), modified);
    } else {
        // Neither a binary list nor UTF-16 shows where the value of a key is.
        addReason(member, fmt::format("left out, since its secrets cannot be found: {}", xml.error().description));
    }
}

void DiagnoseArchive::addLogs(const std::string& folder, const std::string& into) {
    auto names = files_.ownNames(folder);
    if (!names) {
        addReason(into, names.error().description);
        return;
    }
    std::ranges::sort(*names);
    for (const auto& name : *names) {
        const auto path = folder + "/" + name;
        const auto member = into + "/" + name;
        if (name.starts_with('.')) {
            continue;
        }
        if (name.ends_with(LogFileTable::kExtension)) {
            addLog(path, member);
        } else if (name.ends_with(".zip")) {
            addZippedLog(path, member);
        } else if (path == installation_.statusFile()) {
            addText(path, member);
        }
    }
    if (const auto path = std::string(kStandardError); folder == installation_.logs() && files_.exists(path)) {
        addText(path, into + "/standard-error.txt");
    }
}

void DiagnoseArchive::addLog(const std::string& path, const std::string& name) {
    const auto own = files_.checkLinks(path);
    auto file = own ? files_.openForReading(path) : own.error();
    if (!file) {
        addReason(name, file.error().description);
        return;
    }
    addPieces(name, path, [this, descriptor = file->get()] {
        Data piece(kPiece);
        std::ptrdiff_t got = 0;
        do {
            got = files_.readOnce(descriptor, piece);
        } while (got < 0 && errno == EINTR);
        if (got < 0) {
            return fmt::format("\n(the rest cannot be read: {})\n", posixError(errno).description);
        }
        piece.resize(static_cast<std::size_t>(got));
        return textOf(piece);
    });
}

void DiagnoseArchive::addZippedLog(const std::string& path, const std::string& name) {
    const auto own = files_.checkLinks(path);
    const auto status = files_.linkStatus(path);
    if (!own || !status || !(status->isRegular || status->isSymbolicLink)) {
        addReason(name, own ? "not a file" : own.error().description);
        return;
    }
    // What unzip says about a damaged file stands where the rest of the log would be. It asks nobody for a password.
    platform::Process unzip("/bin/sh",
                            {"-c", R"(exec /usr/bin/unzip -p -P "" "$1" 2>&1 </dev/null)", "unzip", literally(path)});
    unzip.launch();
    addPieces(name + ".txt", path, [&] { return textOf(unzip.readAvailableData()); });
}

void DiagnoseArchive::addText(const std::string& path, const std::string& name) {
    const auto text = files_.readText(path);
    if (!text) {
        addReason(name, text.error().description);
        return;
    }
    const auto status = files_.status(path);
    add(name, mask_.text(*text), status ? std::optional(status->modificationDate) : std::nullopt);
}

void DiagnoseArchive::addAuditSettings() {
    for (const std::string name : kAuditFiles) {
        const auto path = platform::systemPath(std::string(kSecurity) + "/" + name);
        if (name == kAuditFiles.front() || files_.exists(path)) {
            addText(path, "audit/" + name);
        }
    }
}

void DiagnoseArchive::addPieces(const std::string& name, const std::string& path,
                                const std::function<std::string()>& read) {
    const auto status = files_.status(path);
    begin(name, status ? std::optional(status->modificationDate) : std::nullopt);
    std::string waiting;
    for (auto piece = read(); !piece.empty(); piece = read()) {
        file_->checkSignals();
        waiting += piece;
        auto whole = DiagnoseMask::wholeMessages(waiting);
        if (whole == 0 && waiting.size() > kLongestMessage) {
            whole = waiting.rfind('\n') + 1;
        }
        tar_->write(mask_.log(std::string_view(waiting).substr(0, whole), events_));
        waiting.erase(0, whole);
    }
    tar_->write(mask_.log(waiting, events_));
    tar_->end();
}

void DiagnoseArchive::add(const std::string& name, const std::string& masked, std::optional<Date> modified) {
    begin(name, modified);
    tar_->write(masked);
    tar_->end();
}

void DiagnoseArchive::addReason(const std::string& name, const std::string& reason) {
    add(name + ".unavailable.txt", mask_.text(reason) + "\n");
}

void DiagnoseArchive::begin(const std::string& name, std::optional<Date> modified) {
    file_->checkSignals();
    members_.push_back(name);
    tar_->begin(folder_ + "/" + name, modified ? epochSeconds(*modified) : std::time(nullptr));
}

}  // namespace sentrova::control
