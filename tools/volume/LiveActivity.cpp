#include "volume/LiveActivity.h"

#include <array>

#include <fmt/format.h>

namespace sentrova::testing {

namespace {

struct Person {
    const char* name;
    std::uint32_t uid;
};

constexpr std::array<Person, 3> kPeople = {{{"bruno", 1108231001}, {"carla", 1108231002}, {"dora", 1108231003}}};

}  // namespace

TrailRecord LiveActivity::next(std::chrono::seconds sinceEpoch) {
    const auto& person = kPeople.at(random_() % kPeople.size());
    const Subject subject = {person.uid, person.uid, 20, person.uid, 20, process_++, 100012, 0, "10.1.7.23"};
    const bool refused = random_() % 4 == 0;
    const std::uint8_t status = refused ? 255 : 0;
    switch (random_() % 5) {
        case 0:
            return TrailRecord(45028).at(sinceEpoch).subject(subject).text("/usr/bin/less").returns(refused, status);
        case 1:
            return TrailRecord(32800)
                .at(sinceEpoch)
                .header(Layout::k32Ex, "10.1.7.23")
                .subject(subject, Layout::k32Ex)
                .text(fmt::format("login {}", person.name))
                .returns(refused, status)
                .identity("com.apple.sshd");
        case 2:
            return TrailRecord(72)
                .at(sinceEpoch)
                .subject(subject)
                .path("/private/tmp/x")
                .attr32(0644, 501, 20)
                .returns(0);
        default:
            return TrailRecord(45023)
                .at(sinceEpoch)
                .subject(subject)
                .text(fmt::format("Verify password for record type Users '{}' node '/Local/Default'", person.name))
                .returns(refused ? 5000 : 0, status)
                .identity("com.apple.loginwindow");
    }
}

}  // namespace sentrova::testing
