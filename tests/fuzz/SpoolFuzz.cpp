// The content of the spool folder at a start. Input: a byte whose bits select the failing deliveries, then the files.
// Each file is a record separator (0x1E), a name, a unit separator (0x1F) and the content. A name that ends with "/"
// makes a folder.

#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzAgent.h"

#include <algorithm>
#include <climits>

namespace sentrova::testing {

namespace {

using Files = std::map<std::string, Data>;

std::size_t eventsIn(std::string_view batch) {
    const auto parsed = Json::parse(batch, {batch.size(), 512});
    const auto* const array = parsed ? parsed->array() : nullptr;
    return array ? static_cast<std::size_t>(std::ranges::count_if(*array, [](auto& e) { return e.dictionary(); })) : 0;
}

Files putFiles(FuzzAgent& agent, std::string_view input) {
    Files files;
    for (const auto part : parts(input, '\x1E', 24)) {
        const auto name = std::string(part.substr(0, std::min(part.find('\x1F'), part.size())));
        const auto content = asBytes(part.substr(std::min(name.size() + 1, part.size())));
        const auto plain = name.substr(0, name.find('/'));
        const auto path = agent.path("eventData/") + plain;
        if (plain.empty() || plain == "." || plain == ".." || plain.find('\0') != std::string::npos ||
            name.size() > plain.size() + 1 || plain.size() > NAME_MAX || agent.files().exists(path)) {
            continue;
        }
        if (name.ends_with('/')) {
            require(static_cast<bool>(agent.files().createFolder(path)), "a folder is made");
        } else {
            require(agent.files().put(path, content), "a file is made");
            files.emplace(name, Data(content.begin(), content.end()));
        }
    }
    return files;
}

// Starts the forwarder on these files, and twice runs it until its queue is idle.
std::vector<std::string> deliver(FuzzAgent& agent, unsigned failing) {
    std::vector<std::string> delivered;
    std::size_t requests = 0;
    agent.session().respondWith([&](const FakeUrlSession::Sent& sent) {
        const bool fails = (failing >> (requests++ % 8) & 1U) != 0;
        delivered.insert(delivered.end(), fails ? 0U : 1U, sent.body);
        return FakeUrlSession::Answer{fails ? 500 : 200, "{}"};
    });
    EventQueueGCD::init();
    auto forwarder = EventForwarder::init();
    // Each block on the forwarder's queue holds a reference to it.
    const auto idle = [&forwarder] { return forwarder.use_count() == 1; };
    const auto awaitEnd = [&] {
        require(eventually(idle), "the forwarder ends its work");
        agent.session().settle();
    };
    forwarder->start();
    for (int round = 0; round < 2; ++round) {
        awaitEnd();
        TransportEngine::setIsConnected(true);
        agent.clock().advance(std::chrono::seconds(10));
        EventQueueGCD::length();
    }
    awaitEnd();
    // Events that returned to the spool may have started it again.
    forwarder->cancel();
    awaitEnd();
    return delivered;
}

}  // namespace

void fuzz(std::span<const std::uint8_t> input) {
    // The check counts log lines, so the input must not contain one.
    if (input.empty() || asText(input).find("[ERROR]") != std::string_view::npos) {
        return;
    }
    auto& agent = FuzzAgent::fresh();
    const auto before = putFiles(agent, asText(input.subspan(1)));
    auto delivered = deliver(agent, input[0]);
    TransportEngine::setIsConnected(true);
    const auto inMemory = EventQueueGCD::dequeue(std::nullopt);
    auto after = agent.files().files(agent.path("eventData"));

    std::size_t expected = 0;
    std::vector<std::string_view> noJson;
    for (const auto& [name, bytes] : before) {
        const auto content = asText(bytes);
        const auto left = after.find(name);
        if (!(content.starts_with('[') && content.ends_with(']') && isValidUtf8(content))) {
            require(left != after.end() && left->second == bytes, "a file that is no batch stays", name);
            after.erase(left);
        } else if (left != after.end() && left->second == bytes) {
            require(input[0] != 0 || name.starts_with('.') || name.starts_with("undelivered_"),
                    "a batch is delivered when the server is there", name);
            after.erase(left);
        } else if (const auto sent = std::ranges::find(delivered, asciiLossy(content, Current<Encodings>::get()));
                   sent != delivered.end()) {
            delivered.erase(sent);
        } else {
            const auto json = Json::parse(content, {content.size(), 512});
            expected += eventsIn(content);
            if (!json || !json->array()) {
                noJson.push_back(content);
            }
        }
    }
    // Undelivered events are in memory, in new files, or were sent in another batch; or the log reports them.
    std::size_t found = agent.logged("[ERROR]Invalid json") + eventsIn(inMemory.value_or("[]"));
    std::string aside;
    for (const auto& [name, content] : after) {
        found += name.starts_with("event_") ? eventsIn(asText(content)) : 0;
        aside += asText(content);
    }
    for (const auto& body : delivered) {
        found += eventsIn(body);
    }
    require(found == expected, "no event is lost, none is made", fmt::format("{} of {}", found, expected));
    for (const auto content : noJson) {
        // Two batches may be equal in ASCII, and only one of them was delivered.
        require(asciiLossy(aside, Current<Encodings>::get()).find(asciiLossy(content, Current<Encodings>::get())) !=
                    std::string::npos,
                "what could not be sent is kept as it is", content);
    }
}

}  // namespace sentrova::testing
