#include "control/SpoolContent.h"

#include "control/TimeArgument.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/Journal.h"
#include "forwarding/RecordDigest.h"
#include "forwarding/SpoolFile.h"
#include "foundation/run/Current.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <span>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

const Value& inner(const Dictionary& status, std::string_view key, std::string_view innerKey) {
    static const Value kNothing;
    const auto* const dictionary = status[key].dictionary();
    return dictionary ? (*dictionary)[innerKey] : kNothing;
}

// Why a kept file is not sent.
std::string whyKept(std::string_view name) {
    if (name.starts_with(DurableSpool::kRefusedPrefix)) {
        return "the server has refused it for good";
    }
    if (name.starts_with(DurableSpool::kAlteredPrefix)) {
        return "its content is not what the agent wrote; its events may have been read again from the trails";
    }
    return "it was not delivered, since the agent found that it is no JSON array";
}

// What becomes of a batch whose file is missing or altered.
std::string whatFollows(const SpooledBatch& batch) {
    return batch.from.empty() ? "its events are lost, unless the journal or the file has them"
                              : "its events are taken from the journal, or read again from the trails";
}

}  // namespace

Result<SpoolContent> SpoolContent::of(const InstallationFolder& installation, FileSystem& files) {
    SpoolContent content(installation.spool(), files);
    // In this order, so that a batch that is sent meanwhile is not taken for a missing one.
    if (const auto read = content.readFolder(); !read) {
        return read.error();
    }
    content.readJournal();
    content.addMissing();
    return content;
}

Result<Done> SpoolContent::readFolder() {
    const auto names = fileSystem_->ownNames(folder_);
    if (!names && names.error().code != ENOENT) {
        return names.error();
    }
    for (const auto& name : names ? *names : std::vector<std::string>()) {
        if (!name.starts_with('.')) {
            addFile(name);
        }
    }
    return Done();
}

void SpoolContent::addFile(const std::string& name) {
    const auto status = fileSystem_->linkStatus(path(name));
    if (!status || !status->isRegular) {
        return;
    }
    SpooledFile file;
    file.name = name;
    file.bytes = status->size;
    file.since = epochSeconds(status->modificationDate);
    files_.push_back(std::move(file));
}

void SpoolContent::readJournal() {
    Journal journal(*fileSystem_, Current<Cryptography>::get());
    journal.setFolder(folder_);
    auto recovery = journal.read();
    using Outcome = JournalRecovery::Outcome;
    if (!recovery) {
        problems_.push_back("The journal of the spool cannot be read: " + recovery.error().description);
        return;
    }
    if (recovery->outcome != Outcome::recovered) {
        if (recovery->outcome == Outcome::unknownVersion) {
            problems_.emplace_back("The journal of the spool was written by another version of the agent");
        }
        return;
    }
    problems_ = recovery->problems;
    openEvents_ = recovery->state.openEvents().size();
    batches_ = recovery->state.batches();
    bodies_ = recovery->state.takeBodies();
    ended_ = recovery->state.ended();
    std::erase_if(ended_, [this](const auto& ended) { return batches_.contains(ended.first); });
}

// The journal has a batch before its file, and the file may have been written since the folder was read. The file of a
// batch that was delivered is still there if the agent was killed just then; the next start deletes it.
void SpoolContent::addMissing() {
    std::erase_if(files_, [this](const auto& file) {
        const auto ended = ended_.find(file.name);
        return ended != ended_.end() && ended->second.empty();
    });
    std::ranges::sort(files_, {}, &SpooledFile::name);
    const auto listed = files_.size();
    for (const auto& [name, batch] : batches_) {
        const std::span<const SpooledFile> sorted(files_.data(), listed);
        if (std::ranges::binary_search(sorted, name, {}, &SpooledFile::name)) {
            continue;
        }
        const auto before = files_.size();
        addFile(name);
        if (files_.size() == before) {
            SpooledFile file;
            file.name = name;
            file.bytes = batch.size;
            files_.push_back(std::move(file));
        }
    }
    std::ranges::sort(files_, {}, &SpooledFile::name);
}

std::optional<SpooledFile> SpoolContent::described(const std::string& name, const Dictionary* agent) const {
    const auto found = std::ranges::lower_bound(files_, name, std::less<>(), &SpooledFile::name);
    return found != files_.end() && found->name == name ? std::optional(describe(*found, agent)) : std::nullopt;
}

std::vector<SpooledFile> SpoolContent::described(const Dictionary* agent) const {
    std::vector<SpooledFile> files;
    files.reserve(files_.size());
    for (const auto& file : files_) {
        files.push_back(describe(file, agent));
        // A running agent may have sent it meanwhile.
        if (file.since && !fileSystem_->linkStatus(path(file.name))) {
            files.pop_back();
        }
    }
    return files;
}

bool SpoolContent::contains(const std::string& name) const {
    return std::ranges::binary_search(files_, name, std::less<>(), &SpooledFile::name);
}

Result<std::string> SpoolContent::textOf(const std::string& name) const {
    auto text = fileSystem_->readText(path(name));
    if (const auto body = bodies_.find(name); !text && body != bodies_.end()) {
        return body->second;
    }
    return text;
}

SpooledFile SpoolContent::describe(SpooledFile file, const Dictionary* agent) const {
    const auto text = textOf(file.name);
    const auto events = text ? SpoolFile::eventsOf(*text) : Result<Array>(text.error());
    if (events) {
        file.events = events->size();
    }
    const bool isSendable = text && SpoolFile::looksLikeBatch(*text);
    const auto batch = batches_.find(file.name);
    if (SpoolFile::isKept(file.name)) {
        file.state = SpooledFile::State::kept;
        file.reason = whyKept(file.name);
    } else if (batch != batches_.end() && batch->second.refusals > 0) {
        file.state = SpooledFile::State::refused;
        file.refusals = batch->second.refusals;
        file.status = batch->second.status;
        file.since = batch->second.firstRefused;
        describeRefusal(file, agent);
    } else if (const auto ended = ended_.find(file.name); ended != ended_.end()) {
        file.state = SpooledFile::State::kept;
        file.reason = fmt::format("{}; the next start renames it to {}", whyKept(ended->second), ended->second);
    } else if (!text && batch != batches_.end()) {
        file.events = batch->second.events;
        file.reason =
            fmt::format("its file cannot be read; {} ({})", whatFollows(batch->second), text.error().description);
    } else if (text && batch != batches_.end() &&
               digestOf(*text, Current<Cryptography>::get()) != batch->second.digest) {
        file.reason = "its content is not what the agent wrote; " + whatFollows(batch->second);
    } else if (!isSendable || (openEvents_ && !file.name.starts_with(SpoolFileNames::kPrefix))) {
        file.state = SpooledFile::State::kept;
        file.reason = isSendable ? "its name is not that of a batch" : "it is no batch, so the agent does not send it";
    } else {
        file.reason = whyWaiting(agent);
    }
    if (!events && !file.events) {
        file.reason += fmt::format(" ({})", events.error().description);
    }
    return file;
}

void SpoolContent::describeRefusal(SpooledFile& file, const Dictionary* agent) const {
    file.reason = fmt::format("refused {}, the last time with HTTP status {}",
                              file.refusals == 1 ? "once" : fmt::format("{} times", file.refusals), *file.status);
    const auto& next = agent ? inner(*agent, "durable", "next_attempt") : Value();
    if (!agent) {
        file.reason += "; next attempt at the agent's start";
    } else if (next.isNumber()) {
        // The agent tells the next attempt of all.
        const bool isOnly = inner(*agent, "durable", "refused") == Value(1);
        file.reason += fmt::format("; next attempt {} {}", isOnly ? "at" : "not before", timeText(next.integerValue()));
    }
}

std::string SpoolContent::whyWaiting(const Dictionary* agent) const {
    if (!agent) {
        return "the agent is not running";
    }
    if (inner(*agent, "server", "reachable") == Value(false)) {
        const auto* const failure = inner(*agent, "server", "last_failure").dictionary();
        return "the server is not reachable" + (failure ? ": " + (*failure)["text"].description() : "");
    }
    return "it is to be sent";
}

}  // namespace sentrova::control
