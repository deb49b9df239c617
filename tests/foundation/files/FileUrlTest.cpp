#include "foundation/files/FileUrl.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(FileUrlTest, PathsKeepTheirBytesThroughTheUrl) {
    const std::pair<std::string, std::string> cases[] = {
        {"/private/var/event_1", "file:///private/var/event_1"},
        {"/a b/100%/?#\"", "file:///a%20b/100%25/%3F%23%22"},
        {"/caf\xC3\xA9/..//x~\n\x7F\xFF", "file:///caf%C3%A9/..//x~%0A%7F%FF"},
        {"/", "file:///"},
    };
    for (const auto& [path, url] : cases) {
        EXPECT_EQ(FileUrl(path).absoluteString(), url);
        EXPECT_EQ(FileUrl::parse(url), FileUrl(path));
    }
    EXPECT_EQ(FileUrl::parse("file:///%c3%a9"), FileUrl("/\xC3\xA9"));
    EXPECT_EQ(FileUrl("/a/b.log").lastPathComponent() + FileUrl("c.log").lastPathComponent(), "b.logc.log");
    for (const auto* text : {"", "/a", "http://host/a", "file:/a", "file://host/a", "file://", "file:///%",
                             "file:///%4", "file:///%zz", "file:///%4g", "file:///a%+1"}) {
        EXPECT_EQ(FileUrl::parse(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace sentrova
