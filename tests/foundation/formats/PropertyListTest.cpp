#include "foundation/formats/PropertyList.h"
#include "platform/icu/IcuEncodings.h"

#include <limits>
#include <random>

#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <plist/plist.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

Result<Value> parse(std::string_view text) {
    static const auto kEncodings = platform::makeIcuEncodings();
    return PropertyList::parse({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, kEncodings.get());
}

std::string repeated(std::string_view text, std::size_t times) {
    return fmt::format("{}", fmt::join(std::vector(times, text), ""));
}

// A dictionary with one value of each kind.
Value sample() {
    Array many;
    for (int i = 0; i < 300; ++i) {
        many.emplace_back(i * 1000);
    }
    using Limits = std::numeric_limits<std::int64_t>;
    return Dictionary{{"text", "a <b> & \"c\"\r\n\tcaf\xC3\xA9 \xF0\x9F\x98\x80"},
                      {"", ""},
                      {"numbers", Array{0, -1, 200, 70000, Limits::max(), Limits::min(), 0.1, -2.5e300, true, false}},
                      {"dates", Array{Date(seconds(1794758320)), Date(seconds(-2'500'000'000))}},
                      {"data", Array{Data(100, 0xA5), Data()}},
                      {"empty", Array{Array(), Dictionary()}},
                      {"many", std::move(many)}};
}

// Converts the list to its other form with an independent implementation.
Data converted(const Data& list, bool toBinary) {
    const auto* const text = reinterpret_cast<const char*>(list.data());
    plist_t tree = nullptr;
    (toBinary ? plist_from_xml : plist_from_bin)(text, static_cast<std::uint32_t>(list.size()), &tree);
    char* out = nullptr;
    std::uint32_t length = 0;
    (toBinary ? plist_to_bin : plist_to_xml)(tree, &out, &length);
    const Data bytes(out, out + length);
    plist_to_xml_free(out);
    plist_free(tree);
    return bytes;
}

TEST(PropertyListTest, EveryKindOfValueSurvivesBothFormsAndIsWrittenAsTheUsualXml) {
    const auto xml = PropertyList::writeXml(sample());
    ASSERT_TRUE(xml);
    EXPECT_EQ(*PropertyList::parse(*xml), sample());

    const auto binary = converted(*xml, true);
    const auto read = PropertyList::parse(binary);
    ASSERT_TRUE(read) << read.error().description;
    EXPECT_EQ(*read, sample());
    EXPECT_EQ(*PropertyList::parse(converted(binary, false)), sample());

    const auto usual = PropertyList::writeXml(Dictionary{{"z", Array{1, true}}, {"a", "x<y\r"}, {"d", Data{1, 2}}});
    EXPECT_EQ(std::string(usual->begin(), usual->end()),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">\n<dict>\n"
              "\t<key>z</key>\n\t<array>\n\t\t<integer>1</integer>\n\t\t<true/>\n\t</array>\n"
              "\t<key>a</key>\n\t<string>x&lt;y&#13;</string>\n"
              "\t<key>d</key>\n\t<data>\n\tAQI=\n\t</data>\n"
              "</dict>\n</plist>\n");
}

TEST(PropertyListTest, XmlOfOtherWritersIsUnderstood) {
    const std::pair<std::string_view, Value> cases[] = {
        {"<plist><string/></plist>", ""},
        {"\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?> <plist version=\"1.0\"> <true/> </plist >\n", true},
        {"<!DOCTYPE plist SYSTEM \"a>b\"><!-- > <x> --><plist><false></false></plist><!-- end -->", false},
        {"<array><!-- </array> --><integer> +7 </integer><integer>0x1F</integer></array>", Array{7, 31}},
        {"<plist><string>a&amp;&lt;&gt;&quot;&apos;&#233;&#x1F600;</string></plist>",
         "a&<>\"'\xC3\xA9\xF0\x9F\x98\x80"},
        {"<plist><string>a<![CDATA[<b>&amp;]]>c<!-- d -->e</string></plist>", "a<b>&amp;ce"},
        {"<plist><dict a=\"</dict>\"><key>k</key><real>5</real><key>k</key><real>-1.5e3</real></dict></plist>",
         Dictionary{{"k", -1500.0}}},
        {"<plist><integer>18446744073709551615</integer></plist>", 0x1p64},
        {"<plist><date>2001-01-01T00:00:00Z</date></plist>", Date(seconds(978307200))},
        {"<plist><data>\n\tQUJ\n\tDRA==\n</data></plist>", Data{'A', 'B', 'C', 'D'}},
        {"<plist><real>-infinity</real></plist>", -std::numeric_limits<double>::infinity()},
        {std::string_view("<plist><true/></plist>\0\xFF", 24), true},
        {"<plist><true/></plist> word", true},
        {"<array/><plist><true/></plist>", Array()},
        {"<?xml version='1.0' encoding = 'ISO-8859-1' ?><plist><string>\xE9</string></plist>", "\xC3\xA9"},
        {"<?xml version='1.0' encoding='windows-1252'?><plist><string>\x80</string></plist>", "\xE2\x82\xAC"},
        {"<?xml version='1.0' encoding='x-mac-roman'?><plist><string>\x8E</string></plist>", "\xC3\xA9"},
        {"<?xml version='1.0' encoding='Shift_JIS'?><plist><string>\x83\x65</string></plist>", "\xE3\x83\x86"},
    };
    for (const auto& [text, value] : cases) {
        const auto parsed = parse(text);
        ASSERT_TRUE(parsed) << text << "\n" << parsed.error().description;
        EXPECT_EQ(*parsed, value) << text;
    }
    EXPECT_TRUE(parse("<plist><integer>-9223372036854775808</integer></plist>")->integer()) << "it became a real";
    // A date out of range becomes the latest date.
    EXPECT_GT(*parse("<plist><date>9999-12-31T23:59:59Z</date></plist>")->date(), Date(seconds(9'000'000'000)));
}

template <class Unit>
void expectWideListIsRead(std::basic_string<Unit> list) {
    for (const char letter : std::string_view("</string></plist>")) {
        list += static_cast<Unit>(letter);
    }
    for (const bool marked : {false, true}) {
        for (const bool bigEndian : {false, true}) {
            std::string text;
            for (const Unit unit : marked ? Unit{0xFEFF} + list : list) {
                for (std::size_t i = 0; i < sizeof unit; ++i) {
                    text += static_cast<char>(unit >> (8 * (bigEndian ? sizeof unit - 1 - i : i)));
                }
            }
            // An incomplete character may follow the end of the list, but must not precede it.
            const auto parsed = parse(text + '\0');
            ASSERT_TRUE(parsed) << parsed.error().description;
            EXPECT_EQ(*parsed, Value("\xE2\x82\xAC \xF0\x9F\x98\x80" + repeated("\xC3\xA9", 9'000)));
            const auto cut = parse(std::string_view(text).substr(0, text.size() - sizeof(Unit) - 1));
            EXPECT_TRUE(!cut && cut.error().description.find("not valid UTF-") != std::string::npos);
        }
    }
}

TEST(PropertyListTest, XmlInWideCharactersIsReadWithAndWithoutAByteOrderMark) {
    expectWideListIsRead(u"<?xml encoding=\"UTF-8\"?><plist><string>\u20AC \U0001F600" + std::u16string(9'000, 0xE9));
    expectWideListIsRead(U"<?xml encoding=\"UTF-8\"?><plist><string>\u20AC \U0001F600" + std::u32string(9'000, 0xE9));
}

void expectRefused(const auto& result, std::string_view reason) {
    ASSERT_FALSE(result) << reason;
    EXPECT_NE(result.error().description.find(reason), std::string::npos) << result.error().description;
    EXPECT_LT(result.error().description.size(), 300u);
}

TEST(PropertyListTest, MalformedXmlIsRefusedWithAReason) {
    const std::pair<const char*, std::vector<std::string>> inList[] = {
        {"unexpected </plist>", {"", "<array>"}},
        {"unknown element", {"<array><bogus/></array>", "<" + repeated("x", 100'000) + ">"}},
        {"expected </plist>", {"<true/><false/>"}},
        {"<true>", {"<true>x</true>"}},
        {"expected <key>", {"<dict><string>a</string></dict>"}},
        {"unexpected </dict>", {"<dict><key>a</key></dict>"}},
        {"text between", {"<array>text</array>"}},
        {"<integer>", {"<integer></integer>", "<integer>12abc</integer>", "<integer>99999999999999999999</integer>"}},
        {"<real>", {"<real>1.5.2</real>"}},
        {"<date>", {"<date>2023-02-29T00:00:00Z</date>", "<date>yesterday</date>"}},
        {"<data>", {"<data>QUJ</data>", "<data>=UJD</data>"}},
        {"unknown entity", {"<string>&bogus;</string>"}},
        {"character reference", {"<string>&#0;</string>", "<string>&#xD800;</string>"}},
        {"not UTF-8", {"<string>\xFF</string>"}},
        {"control characters", {"<string>a<![CDATA[\x01]]></string>"}},
        {"-->", {"<!-- <true/>"}},
        {"deeper than 128",
         {repeated("<array>", 129) + repeated("</array>", 129), repeated("<array>", 100'000),
          repeated("<dict><key>k</key>", 100'000)}},
    };
    for (const auto& [reason, texts] : inList) {
        for (const auto& text : texts) {
            expectRefused(parse("<plist>" + text + "</plist>"), reason);
        }
    }
    const std::pair<const char*, const char*> whole[] = {
        {"", "empty"},
        {"hello", "text between elements"},
        {"<plist/>", "unknown element"},
        {"<plist>\n<array>\n</plist>", "line 3: unexpected </plist>"},
        {"<?xml version=\"1.0\" encoding=\"bogus\"?><plist><true/></plist>", "unknown encoding \"bogus\""},
        {"<?xml version=\"1.0\" encoding=\"\"?><plist><true/></plist>", "unknown encoding \"\""},
        {"<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><true/></plist>", "declares UTF-16"},
        {"<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>", "internal subset"},
        {"<plist><string>a", "ends too early"},
    };
    for (const auto& [text, reason] : whole) {
        expectRefused(parse(text), reason);
    }
    EXPECT_TRUE(parse(repeated("<array>", 128) + repeated("</array>", 128)));
}

TEST(PropertyListTest, ValuesThatAPropertyListCannotHoldAreNamedAndRefused) {
    const std::pair<Value, std::string_view> cases[] = {
        {Value(), "null value"},
        {Dictionary{{"users", Array{1, Value()}}}, "null value at .users[1]"},
        {Dictionary{{"a", Dictionary{{"b", "\xFF"}}}}, "not UTF-8 at .a.b"},
        {Array{std::string("a\0", 2)}, "control characters at [0]"},
        {Dictionary{{"\x01", 1}}, "control characters"},
    };
    for (const auto& [value, reason] : cases) {
        expectRefused(PropertyList::writeXml(value), reason);
    }
}

// Parses a binary list of these objects, with references and offsets of one byte each.
Result<Value> parseBinary(const std::vector<std::string>& objects) {
    std::string list = "bplist00";
    std::string offsets;
    for (const auto& object : objects) {
        offsets += static_cast<char>(list.size());
        list += object;
    }
    const std::string number(7, '\0');
    const auto table = static_cast<char>(list.size());
    return parse(list + offsets + std::string(6, '\0') + "\x01\x01" + number + static_cast<char>(objects.size()) +
                 number + '\0' + number + table);
}

TEST(PropertyListTest, BinaryObjectsThatOtherWritersMakeAreUnderstood) {
    using namespace std::string_literals;
    const std::pair<std::string, Value> cases[] = {
        {"\x10\xFF"s, 255},
        {"\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE"s, -2},
        {"\x14"s + std::string(8, '\0') + std::string(8, '\xFF'), 0x1p64},
        {"\x14"s + std::string(15, '\xFF') + "\xFE", -2},
        {"\x22\x3F\xC0\x00\x00"s, 1.5},
        {"\x33"s + std::string(8, '\0'), Date(seconds(978307200))},
        {"\x5F\x10\x02yz"s, "yz"},
        {"\x62\x00\xE9\x20\xAC"s, "\xC3\xA9\xE2\x82\xAC"},
        {"\x72\xC3\xA9"s, "\xC3\xA9"},
    };
    for (const auto& [object, value] : cases) {
        const auto parsed = parseBinary({object});
        ASSERT_TRUE(parsed) << parsed.error().description;
        EXPECT_EQ(*parsed, value);
    }
}

TEST(PropertyListTest, HostileBinaryListsAreRefused) {
    using namespace std::string_literals;
    // Each array refers to the next one 16 times: 16^10 values in 200 bytes.
    std::vector<std::string> bomb;
    for (char i = 1; i <= 10; ++i) {
        bomb.push_back("\xAF\x10\x10"s + std::string(16, i));
    }
    bomb.emplace_back("\x09");
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"\xA1\x00"s}, "nested deeper"},
        {{"\xD1\x01\x00"s, "\x51k"s}, "nested deeper"},
        {bomb, "more than"},
        {{"\xA1\x05"s}, "refers to an object"},
        {{"\xD1\x01\x01"s, "\x10\x01"s}, "key that is not text"},
        {{"\xAF\x13\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s}, "reaches beyond"},
        {{"\x4F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s}, "reaches beyond"},
        {{"\x6F\x13\x80\x00\x00\x00\x00\x00\x00\x01"s}, "reaches beyond"},
        {{"\x4F\x51"s}, "without a length"},
        {{"\x51\xFF"s}, "not UTF-8"},
        {{"\x61\xD8\x00"s}, "surrogate"},
        {{"\x33\x7F\xF8\x00\x00\x00\x00\x00\x00"s}, "not a number"},
        {{"\x00"s}, "empty value"},
        {{"\x80\x01"s}, "keyed archive"},
        {{"\xC1\x00"s}, "unknown kind"},
    };
    for (const auto& [objects, reason] : cases) {
        expectRefused(parseBinary(objects), reason);
    }
}

TEST(PropertyListTest, EveryTruncationAndThousandsOfBitFlipsGiveAValueOrAReason) {
    const auto xml = *PropertyList::writeXml(sample());
    std::mt19937 random(20261115);
    for (const auto& list : {xml, converted(xml, true)}) {
        // The XML form ends with a line feed, so the bracket before it is the last byte that matters.
        for (std::size_t size = 0; size + 1 < list.size(); ++size) {
            EXPECT_FALSE(PropertyList::parse(std::span(list).first(size))) << size;
        }
        for (int i = 0; i < 3000; ++i) {
            auto damaged = list;
            for (auto flips = random() % 4 + 1; flips > 0; --flips) {
                damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
            }
            const auto parsed = PropertyList::parse(damaged);
            EXPECT_TRUE(parsed || !parsed.error().description.empty());
        }
    }
}

// If each repeated key needed a search of all other keys, this test would run into its time limit.
TEST(PropertyListTest, LongDictionaryMayRepeatAKeyManyTimes) {
    constexpr int kKeys = 100'000;
    std::string text = "<dict>";
    for (int i = 0; i < 2 * kKeys; ++i) {
        text += "<key>" + std::to_string(std::min(i, kKeys)) + "</key><true/>";
    }
    EXPECT_EQ(parse(text + "</dict>")->dictionary()->size(), std::size_t{kKeys} + 1);
}

}  // namespace
}  // namespace sentrova
