#include "BuildPaths.h"
#include "collection/AuditCheck.h"
#include "collection/AuditSource.h"
#include "collection/EventCollector.h"
#include "foundation/run/Current.h"
#include "platform/AuditCondition.h"
#include "support/AgentFixture.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using platform::AuditState;

// The host's state of auditing, if the case gives one.
struct FakeCondition final : platform::AuditCondition {
    explicit FakeCondition(std::optional<Result<AuditState>> given) : answer(std::move(given)) {
        if (answer) {
            publication.emplace(*this);
        }
    }
    Result<AuditState> state() override { return *answer; }

    const std::optional<Result<AuditState>> answer;
    std::optional<Current<AuditCondition>::Publication> publication;
};

}  // namespace

class AuditCheckTest : public ::testing::Test, protected AgentFixture {};

TEST_F(AuditCheckTest, StartAndEachFailedOpeningLogTheProblemAndThePageThatHelps) {
    const std::string switchOn = "see \"Switch auditing on\" in docs/macos.md\r\n";
    const std::string troubleshoot = "see \"Troubleshoot\" in docs/macos.md\r\n";
    const auto page = textOf(std::string(build::kSourceDir) + "/docs/macos.md");
    for (const auto& reference : {switchOn, troubleshoot}) {
        const auto title = reference.substr(5, reference.rfind('"') - 5);
        EXPECT_NE(page.find("\n## " + title + "\n"), std::string::npos) << title;
    }
    const std::string noDevice = "There is no /dev/auditpipe, so no logon is reported as it happens: " + switchOn;
    const std::string off = "Auditing is off on this system, so no logon is recorded: " + switchOn;
    const std::string unknown = "The state of auditing is unknown (Operation not permitted): " + troubleshoot;
    const std::string unreadable =
        "Auditing is on, but /dev/auditpipe is not readable (Is a directory): " + troubleshoot;
    enum class Pipe { there, missing, aFolder };
    // The pipe, the host's state of auditing, and the errors at the start and at the opening.
    const std::tuple<const char*, Pipe, std::optional<Result<AuditState>>, std::string, std::string> cases[] = {
        {"all well", Pipe::there, std::nullopt, "", ""},
        {"device missing", Pipe::missing, std::nullopt, noDevice, noDevice},
        {"device that cannot be opened", Pipe::aFolder, std::nullopt, "", unreadable},
        {"auditing off, device there", Pipe::there, AuditState::off, off, ""},
        {"auditing off, device closed", Pipe::aFolder, AuditState::off, off, off},
        {"system that does not tell", Pipe::there, posixError(EPERM), unknown, ""},
    };
    std::size_t read = 0;
    // The new lines of level 0, from the message on.
    const auto newErrors = [&] {
        const auto text = log();
        std::string errors;
        for (auto at = text.find("[ERROR]", read); at != std::string::npos; at = text.find("[ERROR]", at + 1)) {
            errors += text.substr(at + 7, text.find('\n', at) - at - 6);
        }
        read = text.size();
        return errors;
    };
    for (const auto& [name, pipe, state, atStart, atOpening] : cases) {
        SCOPED_TRACE(name);
        std::filesystem::remove(volume().auditPipe());
        if (pipe == Pipe::there) {
            ASSERT_EQ(::mkfifo(volume().auditPipe().c_str(), 0600), 0);
        } else if (pipe == Pipe::aFolder) {
            std::filesystem::create_directory(volume().auditPipe());
        }
        const FakeCondition condition(state);
        AuditCheck::logState();
        EXPECT_EQ(newErrors(), atStart);

        const auto reader = std::make_shared<EventCollector>(AuditSource::kPipe, std::nullopt);
        EXPECT_EQ(newErrors(), pipe == Pipe::there
                                   ? ""
                                   : "failed to open audit pipe /dev/auditpipe\r\n"
                                     "FileNotOpen failed to open audit pipe\r\n" +
                                         atOpening +
                                         "auditfile is null going to cancel\r\nEventCollector cancel called\r\n");
    }
}

}  // namespace sentrova::testing
