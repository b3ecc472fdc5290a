#include "config/ini.h"

#include <gtest/gtest.h>

#include <cstdint>
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
    const std::pair<std::string, std::string> cases[] = {
        {"a=1\n\n; c\n\n[]\n", "Invalid section header at line 5"},
        {"a=1\n[network] ; x\n", "Invalid section header at line 2"},
        {"a=1\r\n  justtext\r\n[", "Expected key=value at line 2"},
        {"a=1\n[b]\n\xEF\xBB\xBF[network]\n", "Expected key=value at line 3"},
    };
    for (const auto& [text, expected_error] : cases) {
        std::istringstream file(text);
        IniSections sections;
        std::string error;
        EXPECT_FALSE(parse_ini(file, sections, error)) << text;
        EXPECT_EQ(error, expected_error);
        EXPECT_EQ(sections, (IniSections{{"", {{"a", "1"}}}})) << text;
    }
}

/// The number, or nothing; a text that is refused leaves the value alone.
template <typename Value>
std::optional<Value> parsed(bool (*parse)(std::string_view, Value&), std::string_view text) {
    Value value = 77;
    if (parse(text, value)) return value;
    EXPECT_EQ(value, Value{77}) << text;
    return {};
}

TEST(Numbers, FollowThePrefixAndRangeRulesOf32BitsOnEverySystem) {
    const std::pair<const char*, std::int32_t> good[] = {
        {"0x10", 16}, {"-0X1f", -31}, {"010", 8}, {" +7\t", 7}, {"-2147483648", INT32_MIN}};
    for (const auto& [text, value] : good)
        EXPECT_EQ(parsed(parse_int, text), value) << text;
    for (const std::string& text :
         {"2147483648"s, "-2147483649"s, ""s, " "s, "+"s, "-"s, "+-1"s, "- 1"s, "08"s, "0x"s,
          "0xg"s, "0x-1"s, "12ms"s, "1 2"s, "1.0"s, "1\0"s, "\"1\""s, "abc"s, "0b1"s})
        EXPECT_FALSE(parsed(parse_int, text)) << text;
    EXPECT_EQ(parsed(parse_u32, "4294967295"), 4294967295U);
    EXPECT_EQ(parsed(parse_u32, "-4294967295"), 1U);
    EXPECT_FALSE(parsed(parse_u32, "4294967296"));
    EXPECT_FALSE(parsed(parse_u32, "-4294967296"));
    EXPECT_EQ(parsed(parse_u16, "65535"), 65535U);
    EXPECT_FALSE(parsed(parse_u16, "65536"));
    EXPECT_FALSE(parsed(parse_u16, "-1"));
    EXPECT_EQ(parsed(parse_size, "18446744073709551615"), UINT64_MAX);
    EXPECT_FALSE(parsed(parse_size, "18446744073709551616"));
}

}  // namespace
}  // namespace tavistro
