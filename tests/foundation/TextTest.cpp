#include "foundation/Text.h"

#include <clocale>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(TextTest, OnlyStrictUtf8IsValid) {
    const std::pair<std::string_view, bool> cases[] = {
        {"", true},
        {"plain text of more than thirty-two bytes", true},
        {"plain text, and within its second thirty-two bytes: caf\xC3\xA9", true},
        {"plain text, and within its second thirty-two bytes: \xFF", false},
        {std::string_view("a\0b", 3), true},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF", true},
        {"\xED\x9F\xBF\xEE\x80\x80", true},
        {"\xED\xA0\x80", false},
        {"\xC0\x80", false},
        {"\xC1\xBF", false},
        {"\xE0\x9F\xBF", false},
        {"\xF0\x8F\xBF\xBF", false},
        {"\xF4\x90\x80\x80", false},
        {"\xF8\x88\x80\x80\x80", false},
        {"\x80", false},
        {"ends early \xE2\x82", false},
        {"\xE2\x82 broken off within", false},
        {"\xFF", false},
    };
    for (const auto& [text, valid] : cases) {
        EXPECT_EQ(isValidUtf8(text), valid) << ::testing::PrintToString(std::string(text));
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

TEST(TextTest, AsciiLosesMarksAndReplacesTheRest) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"", ""},
        {"plain \n text", "plain \n text"},
        {"{\"name\":\"Zo\xC3\xAB\"}", "{\"name\":\"Zoe\"}"},
        {"\xC3\x85ngstr\xC3\xB6m", "Angstrom"},
        {"e\xCC\x81t\xC3\xA9", "ete"},
        {"\xEF\xAC\x81n", "fin"},
        {"a\xC2\xA0z", "a z"},
        {"stra\xC3\x9F"
         "e",
         "stra?e"},
        {"\xF0\x9F\x98\x80!", "?!"},
        {"\xE6\x9D\xB1\xE4\xBA\xAC", "??"},
        {"a\xFF\xE2\x82z", "a???z"},
    };
    for (const auto& [text, ascii] : cases) {
        EXPECT_EQ(asciiLossy(text), ascii);
    }
}

TEST(TextTest, LeadingRealTakesTheLongestNumber) {
    constexpr auto kInfinity = std::numeric_limits<double>::infinity();
    const std::pair<std::string_view, double> cases[] = {
        {"", 0},
        {"abc", 0},
        {"-", 0},
        {".", 0},
        {"3.75", 3.75},
        {" \t-12.5x", -12.5},
        {".5", 0.5},
        {"5.", 5},
        {"+1e3", 1000},
        {"1e", 1},
        {"1e+", 1},
        {"2E-2 s", 0.02},
        {"0x10", 0},
        {"inf", 0},
        {"nan", 0},
        {"1,5", 1},
        {"1e999", kInfinity},
        {"-1e999", -kInfinity},
        {"1e-999", 0},
        {"0.1000000000000000055511151231257827", 0.1},
    };
    for (const auto& [text, number] : cases) {
        EXPECT_EQ(leadingReal(text), number) << text;
    }
    EXPECT_EQ(wholeReal("-12.5"), -12.5);
    for (const auto* text : {"", " 1", "1 ", "1.5x", "e5", "--1"}) {
        EXPECT_EQ(wholeReal(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace sentrova
