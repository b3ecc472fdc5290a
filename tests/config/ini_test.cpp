#include "config/ini.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <sstream>

namespace tavistro {
namespace {

using namespace std::string_literals;

TEST(ParseIni, StoresTrimmedLowerCaseNamesAndValuesWithoutComments) {
    std::istringstream file(
        "early = above every header\n"
        "; note = 1\r\n\t\v\f \r\n"
        "[ Network ]\r\n"
        "Server_Port = 28010 ; default\r\n"
        "a = first\n"
        "b = x=y # z\n"
        "QUOTED = \"p;Q\" ; c\n"
        "open = \"p;q # r\n"
        "[NETWORK]\n"
        "A = 2\xC3\x84\n"
        "last = ; nothing");
    IniSections sections;
    std::string error;
    EXPECT_TRUE(parse_ini(file, sections, error)) << error;
    const IniSections expected = {{"", {{"early", "above every header"}}},
                                  {"network",
                                   {{"a", "2\xC3\x84"},
                                    {"b", "x=y"},
                                    {"last", ""},
                                    {"open", "\"p;q # r"},
                                    {"quoted", "\"p;Q\""},
                                    {"server_port", "28010"}}}};
    EXPECT_EQ(sections, expected);

    std::string value;
    EXPECT_TRUE(lookup(sections, "NETWORK", "Server_PORT", value));
    EXPECT_FALSE(lookup(sections, "network", "early", value));
    EXPECT_EQ(value, "28010");
}

TEST(ParseIni, NamesTheFirstMalformedLineAndKeepsWhatStoodBefore) {
    const struct {
        const char* text;
        const char* error;
    } cases[] = {
        {"a=1\n\n; c\n\n[]\n", "Invalid section header at line 5"},
        {"a=1\n[network] ; x\n", "Invalid section header at line 2"},
        {"a=1\r\n  justtext\r\n[", "Expected key=value at line 2"},
        {"a=1\n[b]\n\xEF\xBB\xBF[network]\n", "Expected key=value at line 3"},
    };
    for (const auto& bad : cases) {
        std::istringstream file(bad.text);
        IniSections sections;
        std::string error;
        EXPECT_FALSE(parse_ini(file, sections, error)) << bad.text;
        EXPECT_EQ(error, bad.error);
        EXPECT_EQ(sections, (IniSections{{"", {{"a", "1"}}}})) << bad.text;
    }
}

/// A text without a value is refused and leaves the number alone.
template <typename Value>
void expect_numbers(bool (*parse)(std::string_view, Value&),
                    const std::map<std::string, std::optional<Value>>& numbers) {
    for (const auto& [text, expected] : numbers) {
        Value parsed = 77;
        EXPECT_EQ(parse(text, parsed), expected.has_value()) << text;
        EXPECT_EQ(parsed, expected.value_or(Value{77})) << text;
    }
}

TEST(Numbers, FollowThePrefixAndRangeRulesOf32BitsOnEverySystem) {
    constexpr std::int32_t smallest = std::numeric_limits<std::int32_t>::min();
    constexpr std::uint64_t largest = std::numeric_limits<std::uint64_t>::max();
    expect_numbers<std::int32_t>(parse_int,
                                 {{"0x10", 16}, {"-0X1f", -31}, {"010", 8}, {" +7\t", 7}});
    expect_numbers<std::int32_t>(
        parse_int, {{"2147483648", {}}, {"-2147483648", smallest}, {"-2147483649", {}}});
    expect_numbers<std::uint32_t>(
        parse_u32,
        {{"4294967295", 4294967295U}, {"4294967296", {}}, {"-4294967295", 1}, {"-4294967296", {}}});
    expect_numbers<std::uint16_t>(
        parse_u16, {{"65535", 65535}, {"65536", {}}, {"-1", {}}, {"-4294967295", 1}});
    expect_numbers<std::uint64_t>(
        parse_size,
        {{"18446744073709551615", largest}, {"18446744073709551616", {}}, {"-1", largest}});

    for (const std::string& text :
         {""s, " "s, "+"s, "-"s, "+-1"s, "- 1"s, "08"s, "0x"s, "0xg"s, "0x-1"s, "12ms"s, "1 2"s,
          "1.0"s, "1\0"s, "\"1\""s, "abc"s, "0b1"s})
        expect_numbers<std::int32_t>(parse_int, {{text, {}}});
}

TEST(Numbers, ListSkipsEmptyItemsAndNamesTheFirstBadOne) {
    std::string error;
    const std::map<std::string, std::vector<std::int32_t>> lists = {
        {" , ", {}}, {"0, 1,,2,", {0, 1, 2}}, {"-3,0x10,-3", {-3, 16, -3}}};
    for (const auto& [text, expected] : lists) {
        std::vector<std::int32_t> values = {9};
        EXPECT_TRUE(parse_int_list(text, values, error)) << text;
        EXPECT_EQ(values, expected) << text;
        EXPECT_FALSE(parse_int_list("1, x y ,z", values, error));
        EXPECT_EQ(values, expected) << "left alone";
    }
    EXPECT_EQ(error, "Invalid integer list item: x y");
}

TEST(Accessors, ReadTheFlagWordsInAnyLetterCase) {
    const std::map<bool, std::vector<std::string>> words = {{true, {"TRUE", " Yes ", "On", "1"}},
                                                            {false, {"False", "nO", "off", "0"}}};
    for (const auto& [expected, synonyms] : words) {
        for (const std::string& word : synonyms) {
            bool value = !expected;
            std::string error;
            EXPECT_TRUE(read_optional_bool({{"s", {{"k", word}}}}, "S", "K", value, error)) << word;
            EXPECT_EQ(value, expected) << word;
        }
    }
}

}  // namespace
}  // namespace tavistro
