#include "foundation/formats/Json.h"

#include <limits>

#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

std::string repeated(std::string_view text, std::size_t times) {
    return fmt::format("{}", fmt::join(std::vector(times, text), ""));
}

void expectRefused(const auto& result, std::string_view reason) {
    ASSERT_FALSE(result) << reason;
    EXPECT_NE(result.error().description.find(reason), std::string::npos) << result.error().description;
}

TEST(JsonTest, TextsBecomeTheirValues) {
    const std::pair<std::string_view, Value> cases[] = {
        {" [ ] ", Array()},
        {"{}", Dictionary()},
        {R"([null,true,false,0,-1,1.5,1e2,"x"])", Array{Value(), true, false, 0, -1, 1.5, 100.0, "x"}},
        {R"({"a":{"b":[1,[2]],"":3}})", Dictionary{{"a", Dictionary{{"b", Array{1, Array{2}}}, {"", 3}}}}},
        {R"({"a":1,"b":2,"a":3})", Dictionary{{"a", 3}, {"b", 2}}},
        {R"(["\u00e9\ud83d\ude00\n\/\u0000"])", Array{std::string("\xC3\xA9\xF0\x9F\x98\x80\n/\0", 9)}},
        {"[-9223372036854775808,9223372036854775807]",
         Array{std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}},
        {"[9223372036854775808,-99999999999999999999]", Array{0x1p63, -1e20}},
    };
    for (const auto& [text, value] : cases) {
        const auto parsed = Json::parse(text);
        ASSERT_TRUE(parsed) << text << parsed.error().description;
        EXPECT_EQ(*parsed, value) << text;
    }
}

TEST(JsonTest, MalformedTextsAreRefusedWithAReason) {
    const std::string deep = repeated("[", 129) + repeated("]", 129);
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"byte", {"", "[1e999]", "[\"\\ud800\"]", "[\"" + repeated("x", 100'000)}},
        {"byte 4", {"[1,]", "[] []"}},
        {"UTF-8", {"[\"\xFF\"]"}},
        {"neither a dictionary nor an array", {"1", "\"text\""}},
        {"nested deeper than 128", {deep, repeated("[", 100'000), repeated("{\"a\":", 100'000)}},
    };
    for (const auto& [reason, texts] : cases) {
        for (const auto& text : texts) {
            const auto parsed = Json::parse(text);
            expectRefused(parsed, reason);
            EXPECT_LT(parsed.error().description.size(), 300u);
        }
    }
    const auto reason = Json::parse(R"({"key":"secret" x})").error().description;
    EXPECT_EQ(reason.find("secret"), std::string::npos) << reason;
    EXPECT_TRUE(Json::parse(std::string_view(deep).substr(1, 256)));
    EXPECT_FALSE(Json::parse("[1,2,3]", {.bytes = 6, .depth = 9}));
}

TEST(JsonTest, WrittenValuesAreCompactAndReadBackEqual) {
    const std::pair<Value, std::string_view> cases[] = {
        {Dictionary{{"z", 1}, {"a", Array{Value(), true, false, Array()}}, {"k\"\n", 1}},
         R"({"z":1,"a":[null,true,false,[]],"k\"\n":1})"},
        {Array{std::numeric_limits<std::int64_t>::min(), -0.5, 1e300}, "[-9223372036854775808,-0.5,1e+300]"},
        {Array{"\"\\/\b\f\n\r\t\x01\x1F\x7F"}, "[\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\x7F\"]"},
        {Array{std::string("a\0b", 3), "caf\xC3\xA9 \xF0\x9F\x98\x80"},
         "[\"a\\u0000b\",\"caf\xC3\xA9 \xF0\x9F\x98\x80\"]"},
        {Array{"eight by\"es", "eight by\\es", "eight by\x1F", "eight bytes!#[]", "eight b\xC3\xA9"},
         "[\"eight by\\\"es\",\"eight by\\\\es\",\"eight by\\u001f\",\"eight bytes!#[]\",\"eight b\xC3\xA9\"]"},
    };
    for (const auto& [value, text] : cases) {
        EXPECT_EQ(*Json::write(value), text);
        EXPECT_EQ(*Json::parse(text), value);
    }
    const Value reals = Array{0.1, 1.0, 1.0 / 3, 5e-324, std::numeric_limits<double>::max(), 1e22};
    EXPECT_EQ(*Json::parse(*Json::write(reals)), reals);
}

TEST(JsonTest, ValuesThatJsonCannotHoldAreNamedAndRefused) {
    Value deep = Array();
    for (int i = 0; i < 128; ++i) {
        deep = Array{std::move(deep)};
    }
    const std::pair<Value, std::string_view> cases[] = {
        {"text", "neither"},
        {Dictionary{{"when", Date()}}, "a date at .when"},
        {Dictionary{{"users", Array{1, Dictionary{{"id", Data{1}}}}}}, "data at .users[1].id"},
        {Array{std::numeric_limits<double>::quiet_NaN()}, "not finite at [0]"},
        {Array{"\xFF"}, "not UTF-8 at [0]"},
        {Dictionary{{"\xED\xA0\x80", 1}}, "not UTF-8 at .???"},
        {deep, "nested too deep"},
    };
    for (const auto& [value, reason] : cases) {
        expectRefused(Json::write(value), reason);
    }
    EXPECT_TRUE(Json::write(deep.array()->front()));
}

}  // namespace
}  // namespace sentrova
