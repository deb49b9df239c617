#include "foundation/value/Text.h"
#include "platform/icu/IcuEncodings.h"

#include <limits>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using namespace std::string_view_literals;

TEST(TextTest, OnlyStrictUtf8IsValid) {
    for (const std::string_view text : {std::string_view("a\0b", 3), std::string_view(),
                                        "plain text, and within its second thirty-two bytes: caf\xC3\xA9"sv,
                                        "\xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF \xED\x9F\xBF\xEE\x80\x80"sv}) {
        EXPECT_TRUE(isValidUtf8(text)) << text;
    }
    for (const std::string text :
         {"plain text, and within its second thirty-two bytes: \xFF", "\xED\xA0\x80", "\xC0\x80", "\xC1\xBF", "\x80",
          "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\xFF", "ends early \xE2\x82",
          "\xE2\x82 broken off within"}) {
        EXPECT_FALSE(isValidUtf8(text)) << ::testing::PrintToString(text);
    }
    for (std::size_t i = 0; i < 40; ++i) {
        std::string text(40, 'a');
        EXPECT_TRUE(isAscii(text));
        text[i] = '\xE9';
        EXPECT_FALSE(isAscii(text) || isValidUtf8(text)) << i;
    }
}

TEST(TextTest, Utf16KeepsCharactersAndMarksStrayBytes) {
    EXPECT_EQ(utf16("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), u"a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(utf16("\xE2\x82z\xFF"), u"\uFFFD\uFFFDz\uFFFD");
    EXPECT_EQ(utf8(u"a\u00E9\u20AC\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    for (const auto lone : {u"\xD83D", u"\xD83Dz", u"\xDE00"}) {
        EXPECT_EQ(utf8(lone), std::nullopt);
    }
}

TEST(TextTest, AsciiDropsAccentsAndReplacesOtherCharacters) {
    const auto encodings = platform::makeIcuEncodings();
    EXPECT_EQ(
        asciiLossy(
            "plain \n {\"name\":\"Zo\xC3\xAB\"} \xC3\x85ngstr\xC3\xB6m e\xCC\x81t\xC3\xA9 \xEF\xAC\x81n a\xC2\xA0z",
            *encodings),
        "plain \n {\"name\":\"Zoe\"} Angstrom ete fin a z");
    EXPECT_EQ(asciiLossy("stra\xC3\x9Fze \xF0\x9F\x98\x80! \xE6\x9D\xB1\xE4\xBA\xAC a\xFF\xE2\x82z", *encodings),
              "stra?ze ?! ?? a???z");
}

TEST(TextTest, LeadingRealTakesTheLongestNumber) {
    constexpr auto kInfinity = std::numeric_limits<double>::infinity();
    const std::pair<double, std::vector<std::string_view>> cases[] = {
        {0, {"", "abc", "-", ".", "0x10", "inf", "nan", "1e-999"}},
        {1, {"1e", "1e+", "1,5"}},
        {-12.5, {" \t-12.5x"}},
        {0.5, {".5"}},
        {5, {"5."}},
        {1000, {"+1e3"}},
        {0.02, {"2E-2 s"}},
        {0.1, {"0.1000000000000000055511151231257827"}},
        {kInfinity, {"1e999"}},
        {-kInfinity, {"-1e999"}},
    };
    for (const auto& [number, texts] : cases) {
        for (const auto text : texts) {
            EXPECT_EQ(leadingReal(text), number) << text;
        }
    }
    EXPECT_EQ(wholeReal("-12.5"), -12.5);
    for (const auto* text : {"", " 1", "1 ", "1.5x", "1e", "e5", "--1"}) {
        EXPECT_EQ(wholeReal(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace sentrova
