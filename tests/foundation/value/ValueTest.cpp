#include "foundation/value/Value.h"

#include <limits>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

constexpr auto kLargest = std::numeric_limits<std::int64_t>::max();
constexpr auto kSmallest = std::numeric_limits<std::int64_t>::min();

TEST(ValueTest, NumbersAreReadFromEveryKindOfValue) {
    constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
    // The expected integerValue, intValue, doubleValue and boolValue.
    const std::tuple<Value, std::int64_t, std::int32_t, double, bool> cases[] = {
        {Value(), 0, 0, 0, false},
        {true, 1, 1, 1, true},
        {std::int64_t{0x100000001}, 0x100000001, 1, 4294967297.0, true},
        {-0.5, 0, 0, -0.5, true},
        {1e300, kLargest, -1, 1e300, true},
        {-1e300, kSmallest, 0, -1e300, true},
        {" \t-12abc", -12, -12, -12, true},
        {"3.75", 3, 3, 3.75, true},
        {"99999999999999999999", kLargest, kMost, 1e20, true},
        // Above the signed range of 64 bits, below the unsigned one.
        {"9300000000000000000", kLargest, kMost, 9.3e18, true},
        {"-99999999999999999999", kSmallest, -kMost - 1, -1e20, true},
        {"no", 0, 0, 0, false},
        {"Yes", 0, 0, 0, true},
        {"  +007", 7, 7, 7, true},
        {"-000", 0, 0, 0, false},
        {"true", 0, 0, 0, true},
        {Array{1}, 0, 0, 0, false},
        {Date(seconds(5)), 0, 0, 0, false},
    };
    for (const auto& [value, integer, cut, real, truth] : cases) {
        SCOPED_TRACE(value.description());
        EXPECT_EQ(value.integerValue(), integer);
        EXPECT_EQ(value.intValue(), cut);
        EXPECT_EQ(value.doubleValue(), real);
        EXPECT_EQ(value.boolValue(), truth);
    }
}

TEST(ValueTest, DescriptionIsTheTextInMessages) {
    const std::pair<Value, std::string> cases[] = {
        {Value(), "(null)"},
        {false, "0"},
        {kSmallest, "-9223372036854775808"},
        {1700000000.0, "1700000000"},
        {"a \"b\"", "a \"b\""},
        {Data{0x00, 0xAB}, "{length = 2, bytes = 0x00ab}"},
        {Data(25, 0x11), "{length = 25, bytes = 0x" + std::string(32, '1') + " ... " + std::string(16, '1') + "}"},
        {Date(seconds(1794758320)), "2026-11-15 15:58:40 +0000"},
        {Array{1, "two words", "", "caf\xC3\xA9\n\x7F", 0.5, Value()},
         "(\n    1,\n    \"two words\",\n    \"\",\n    \"caf\\U00e9\\n\\177\",\n    \"0.5\",\n    \"<null>\"\n)"},
        {Dictionary{{"b", Array{true}}, {"a.b", Dictionary()}},
         "{\n    \"a.b\" = {\n    };\n    b = (\n        1\n    );\n}"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(value.description(), text);
    }
}

TEST(ValueTest, NumbersCompareByValueAndOthersByKindToo) {
    EXPECT_EQ(Value(true), Value(1));
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_NE(Value(1), Value(1.5));
    EXPECT_NE(Value(1), Value("1"));
    EXPECT_NE(Value(), Value(0));
    EXPECT_EQ(Value(Array{1, "a"}), Value(Array{1.0, "a"}));
    EXPECT_NE(Value(Array{1, 2}), Value(Array{2, 1}));
    // Above 2^53, reals cannot represent every integer.
    EXPECT_NE(Value(kLargest), Value(kLargest - 1));
}

TEST(ValueTest, LargeDictionaryKeepsOrderAndFindsKeysAfterRemovals) {
    Dictionary numbers;
    for (int i = 0; i < 100; ++i) {
        numbers.set(std::to_string(i), i);
    }
    for (int i = 0; i < 100; i += 3) {
        EXPECT_TRUE(numbers.remove(std::to_string(i)));
    }
    EXPECT_FALSE(numbers.remove("0"));
    const auto copy = numbers;
    numbers.set("0", "again");
    numbers.set("98", 98.5);
    EXPECT_NE(copy, numbers);
    EXPECT_EQ(numbers["0"], "again");
    int number = 1;
    for (const auto& [key, value] : copy) {
        EXPECT_TRUE(key == std::to_string(number) && value == Value(number) && copy[key] == value) << key;
        number += number % 3;
    }
    EXPECT_EQ(number, 100);
    EXPECT_TRUE(copy["missing"].isNull());
    // Order does not matter for equality.
    EXPECT_EQ((Dictionary{{"a", 1}, {"b", 2}}), (Dictionary{{"b", 2}, {"a", 1}}));
}

}  // namespace
}  // namespace sentrova
