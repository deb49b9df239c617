#include "foundation/formats/KeyedArchive.h"
#include "foundation/formats/PropertyList.h"

#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

// A Mac's archive of two entries with shared keys. One entry has a text as a separate string object, and one is of the
// immutable dictionary class.
constexpr std::string_view kMacArchive =
    "62706c6973743030d4010203040506070a582476657273696f6e592461726368697665725424746f7058246f626a6563747312000186a05f"
    "100f4e534b657965644172636869766572d1080954726f6f748001af10100b0c171819212223242c2d31383c3d3e55246e756c6cd30d0e0f"
    "101316574e532e6b6579735a4e532e6f626a656374735624636c617373a2111280028003a2141580048008800c126553f100126553f13cd3"
    "0d0e0f1a1d20a21b1c80058006a21e1f8007800d800c537569645367696463007a006f00ebd30d0e0f25282ba2262780058009a2292a800a"
    "800e800f54666c6167d22e0f2f30594e532e737472696e67557374616666800bd2323334355a24636c6173736e616d655824636c61737365"
    "735f100f4e534d757461626c65537472696e67a3343637584e53537472696e67584e534f626a656374d23233393a5f10134e534d75746162"
    "6c6544696374696f6e617279a3393b375c4e5344696374696f6e617279101409d232333b3fa23b3700080011001a00240029003200370049"
    "004c005100530066006c0073007b0086008d00900092009400970099009b009d00a200a700ae00b100b300b500b800ba00bc00be00c200c6"
    "00cd00d400d700d900db00de00e000e200e400e900ee00f800fe0100010501100119012b012f013801410146015c0160016d016f01700175"
    "0000000000000201000000000000004000000000000000000000000000000178";

Data fromHex(std::string_view hex) {
    Data bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

// The archive with some bytes replaced by others of the same length.
Data changed(Data archive, std::string_view from, std::string_view to) {
    std::string text(archive.begin(), archive.end());
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    text.replace(at, to.size(), to);
    return {text.begin(), text.end()};
}

TEST(KeyedArchiveTest, ArchiveOfAMacIsReadAndContentSurvivesTheRoundTrip) {
    const auto mac = KeyedArchive::unarchive(fromHex(kMacArchive));
    ASSERT_TRUE(mac) << mac.error().description;
    const KeyedArchive::Content expected = {{1700000000, {{"uid", "zo\xC3\xAB"}, {"gid", 20}}},
                                            {1700000060, {{"uid", "staff"}, {"flag", true}}}};
    EXPECT_EQ(*mac, expected);

    KeyedArchive::Content large;
    for (int i = 0; i < 100'000; ++i) {
        large[i] = {{"uid", "user" + std::to_string(i % 100)}, {"gid", "a rather long group that all entries share"}};
    }
    using Limits = std::numeric_limits<std::int64_t>;
    const KeyedArchive::Content cases[] = {
        {},
        {{Limits::min(), {}},
         {-1, {{"uid", "caf\xC3\xA9 \xF0\x9F\x98\x80"}, {"long", std::string(5000, 'x')}}},
         {1700000000, {{"a", true}, {"b", -5}, {"c", 2.5}, {"gid", "gid"}, {"none", ""}}},
         {Limits::max(), {{"n", Limits::max()}}}},
        large};
    for (const auto& content : cases) {
        const auto archive = KeyedArchive::archive(content);
        ASSERT_TRUE(archive);
        // Equal texts and class descriptions are stored once.
        EXPECT_LT(archive->size(), 6000 + 100 * content.size());
        const auto read = KeyedArchive::unarchive(*archive);
        ASSERT_TRUE(read) << read.error().description;
        EXPECT_EQ(*read, content);
    }
}

TEST(KeyedArchiveTest, OtherContentTruncationAndRandomDamageAreRefusedWithAReason) {
    const auto mac = fromHex(kMacArchive);
    const auto list = *PropertyList::writeXml(Dictionary{{"uid", "a"}});
    const std::pair<Data, std::string_view> cases[] = {
        {{}, "Not a binary property list"},
        {list, "Not a binary property list"},
        {{mac.begin(), mac.begin() + 39}, "cut short"},
        {changed(mac, "NSKeyedArchiver", "NSKeyedArchivex"), "known version"},
        {changed(mac, "$top", "$tip"), "without \"$top\""},
        {changed(mac, "NSMutableDictionary", "NSMutableDictionarx"), "\"NSMutableDictionarx\""},
        {changed(mac, "NSMutableString", "NSMutableStrinx"), "\"NSMutableStrinx\""},
        {changed(mac, "NS.keys", "NS.kexs"), "without \"NS.keys\""},
        // Replaces the key of the first entry by a text, by a reference to itself, to null and beyond the table.
        {changed(mac, "\x80\x02\x80\x03", "\x80\x05\x80\x03"), "not a whole number"},
        {changed(mac, "\x80\x04\x80\x08", "\x80\x01\x80\x08"), "key that is not text"},
        {changed(mac, "\x80\x04\x80\x08", std::string_view("\x80\x00\x80\x08", 4)), "missing object"},
        {changed(mac, "\x80\x04\x80\x08", "\x80\x7F\x80\x08"), "missing object"},
        {changed(mac, "\x80\x07\x80\x0D", "\x80\x04\x80\x0D"), "where a NSString belongs"},
    };
    const auto expectError = [](const auto& result, std::string_view reason) {
        ASSERT_FALSE(result) << reason;
        EXPECT_NE(result.error().description.find(reason), std::string::npos) << result.error().description;
    };
    for (const auto& [archive, reason] : cases) {
        expectError(KeyedArchive::unarchive(archive), reason);
    }
    for (std::size_t size = 0; size < mac.size(); ++size) {
        expectError(KeyedArchive::unarchive(std::span(mac).first(size)), "");
    }
    for (const auto& [entry, reason] : {std::pair(Dictionary{{"list", Array{1}}}, "Entry 7: \"list\""),
                                        {Dictionary{{"none", Value()}}, "Entry 7: \"none\""},
                                        {Dictionary{{"uid", "\xFF"}}, "not UTF-8"}}) {
        expectError(KeyedArchive::archive({{1, {{"uid", "a"}}}, {7, entry}}), reason);
    }
    std::mt19937 random(20261115);
    for (int i = 0; i < 20'000; ++i) {
        auto damaged = mac;
        for (auto flips = random() % 3 + 1; flips > 0; --flips) {
            damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
        }
        const auto content = KeyedArchive::unarchive(damaged);
        EXPECT_TRUE(content || !content.error().description.empty());
    }
}

}  // namespace
}  // namespace sentrova
