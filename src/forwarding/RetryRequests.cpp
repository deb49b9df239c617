#include "forwarding/RetryRequests.h"

#include "core/LogSource.h"
#include "forwarding/SpoolFile.h"
#include "foundation/formats/Json.h"
#include "foundation/value/Text.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("RetryRequests");
constexpr std::string_view kNames = "names";

// A name that leads out of the folder, or to the spool's own hidden files, is nobody's batch.
bool isFileName(std::string_view name) {
    return !name.empty() && !name.starts_with('.') && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

}  // namespace

Result<std::string> RetryRequests::write(FileSystem& files, const std::string& folder,
                                         const std::vector<std::string>& names, std::int64_t now) {
    const auto text = Json::write(Dictionary{{std::string(kNames), Array(names.begin(), names.end())}});
    if (!text) {
        return text.error();
    }
    auto path = fmt::format("{}/{}{}-{}", folder, kPrefix, now, ::getpid());
    const auto written = files.writeAtomically(
        path, {reinterpret_cast<const std::uint8_t*>(text->data()), text->size()}, FileSystem::Durability::flushed);
    return written ? Result<std::string>(std::move(path)) : written.error();
}

std::string RetryRequests::path(const std::string& name) const {
    return configuration_.eventDataPath() + "/" + name;
}

void RetryRequests::serve(DurableSpool* durable) {
    const MutexLock lock(mutex_);
    auto names = files_.ownNames(configuration_.eventDataPath());
    if (!names) {
        if (names.error().code != ENOENT) {
            kLog.error("Requests to send batches again cannot be read: {}", names.error().description);
        }
        return;
    }
    std::ranges::sort(*names);
    for (const auto& name : *names) {
        if (name.starts_with(kPrefix)) {
            serveFile(path(name), durable);
        }
    }
}

void RetryRequests::serveFile(const std::string& path, DurableSpool* durable) {
    const auto text = files_.readText(path);
    if (!text && SpoolFile::isShortage(text.error())) {
        kLog.error("The request {} waits: {}", path, text.error().description);
        return;
    }
    const auto request = text ? Json::parse(*text) : Result<Value>(text.error());
    const auto* const content = request ? request->dictionary() : nullptr;
    const auto* const names = content ? (*content)[kNames].array() : nullptr;
    if (!names) {
        kLog.error("The request {} is damaged and is removed: {}", path,
                   request ? "it has no list of names" : request.error().description);
    }
    for (const auto& value : names ? *names : Array()) {
        const auto* const name = value.string();
        if (name && isFileName(*name)) {
            retry(*name, durable);
        } else {
            kLog.error("The request {} names no file of the spool: {}", path, excerpt(value.description()));
        }
    }
    if (const auto removed = files_.remove(path); !removed) {
        kLog.error("The request {} was served and cannot be removed: {}", path, removed.error().description);
    }
}

void RetryRequests::retry(const std::string& name, DurableSpool* durable) {
    switch (durable ? durable->retry(name) : DurableSpool::Retry::unknown) {
        case DurableSpool::Retry::due:
            kLog.error("On request, the refused batch {} is sent again at once", path(name));
            return;
        case DurableSpool::Retry::waiting:
            kLog.info("The batch {} was asked for and waits to be sent already", path(name));
            return;
        case DurableSpool::Retry::unknown:
            break;
    }
    if (!files_.linkStatus(path(name))) {
        kLog.info("The file {} was asked for and is not in the spool any more", path(name));
    } else if (SpoolFile::isKept(name)) {
        sendAgain(name, durable);
    } else {
        kLog.info("The file {} was asked for and is not one that the spool keeps; nothing is changed", path(name));
    }
}

void RetryRequests::sendAgain(const std::string& keptName, DurableSpool* durable) {
    const auto content = files_.readText(path(keptName));
    if (!content) {
        kLog.error("The file {} is not sent again: {}", path(keptName), content.error().description);
        return;
    }
    // The server would refuse it again, and without the durable mode that stops all deliveries for a while.
    if (const auto events = SpoolFile::eventsOf(*content); !events) {
        kLog.error("The file {} is not a batch of events ({}); it stays in the spool and is not sent", path(keptName),
                   events.error().description);
        return;
    }
    const bool isDurable = durable && durable->mode() == DurableSpool::Mode::on;
    const auto sent = isDurable ? durable->sendAgain(keptName) : spool_.sendAgain(keptName);
    if (sent) {
        kLog.error("On request, the file {} is sent again, as {}", path(keptName), path(*sent));
    } else {
        kLog.error("The file {} is not sent again: {}", path(keptName), sent.error().description);
    }
}

}  // namespace sentrova
