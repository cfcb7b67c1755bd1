// What a text gives as a value, when a value counts as changed, and under which code it is stored.

#include "values/Attribute.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <gtest/gtest.h>

#include <clocale>
#include <limits>
#include <locale>

using namespace IPCData;

namespace {

Attribute holding(Value value, std::int32_t type = INVALID)
{
    return {false, "a", std::move(value), 0, false, type, false, false};
}

/// A locale with the comma as decimal point and dots between thousands.
class CommaLocale : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

} // namespace

TEST(SetValue, CountsAsChangedOnlyWhenAlternativeOrContentDiffer)
{
    Attribute attribute = holding(std::int32_t{5});
    attribute.SetValue(Value(std::int32_t{5}));
    EXPECT_FALSE(attribute.changed);
    attribute.SetValue(Value(std::int64_t{5}));
    EXPECT_TRUE(attribute.changed);
    EXPECT_EQ(attribute.value.index(), 3U);
    Attribute name = holding(std::string("a\0b", 3));
    name.SetValue(Value(std::string("a\0c", 3)));
    EXPECT_TRUE(name.changed) << "texts compare by length, not up to a zero byte";
}

TEST(SetValue, UnreadableTextOrTypeLeavesEverythingAlone)
{
    struct Case {
        std::int32_t type;
        const char* text;
    };
    for (const auto& [type, text] :
         {Case{INT32, "abc"}, Case{INT16, "40000"}, Case{UINT16, "70000"}, Case{INT64, "9223372036854775808"},
          Case{UINT64, "18446744073709551616"}, Case{DECIMAL64, ""}, Case{DECIMAL64, "1e999"}, Case{FLOAT, "1e39"},
          Case{BOOLEAN, "yes"}, Case{BOOLEAN, "2"}, Case{INVALID, "1"}, Case{13, "1"}, Case{15, "1"}, Case{33, "1"},
          Case{-1, "1"}}) {
        Attribute attribute = holding(std::int32_t{7}, INT32);
        attribute.SetValue(text, type);
        EXPECT_EQ(attribute.value, Value(std::int32_t{7})) << type << " " << text;
        EXPECT_EQ(attribute.type, INT32) << type << " " << text;
        EXPECT_FALSE(attribute.changed) << type << " " << text;
    }
}

TEST(SetValue, TextGivesTheTypesOwnAlternative)
{
    struct Case {
        std::int32_t type;
        const char* text;
        Value expected;
    };
    const Case cases[] = {{INT8, " -128", std::int8_t{-128}},
                          {INT8, "300", std::int8_t{44}}, // the low 8 bits count
                          {UINT8, "255", std::uint8_t{255}},
                          {INT16, "-32768", std::int16_t{-32768}},
                          {UINT16, "65535", std::uint16_t{65535}},
                          {INT32, "-2147483648", std::numeric_limits<std::int32_t>::min()},
                          {ENUM, "3 of 4", std::int32_t{3}}, // reading stops where the number ends
                          {UINT32, "4294967295", std::uint32_t{4294967295U}},
                          {INT64, "-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
                          {UINT64, "18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
                          {BOOLEAN, "true", true},
                          {BOOLEAN, "0", false},
                          {DECIMAL64, "1.5", 1.5},
                          {FLOAT, "0.1", 0.1F},
                          {32, "any text", std::string("any text")},
                          {SECOND_REFERENCE, "", std::string()}};
    for (const auto& [type, text, expected] : cases) {
        Attribute attribute = holding(std::string("before"));
        attribute.SetValue(text, type);
        EXPECT_EQ(attribute.value, expected) << type << " " << text;
        EXPECT_EQ(attribute.type, type);
    }
}

TEST(Text, IsTheSameInEveryLocale)
{
    const std::locale before = std::locale::global(std::locale(std::locale(), new CommaLocale));
    EXPECT_EQ(holding(1234567.5).ToStr(), "1.23457e+06");
    EXPECT_EQ(holding(std::int32_t{1234567}).ToStr(), "1234567");
    EXPECT_EQ(parseValue("1.5", DECIMAL64), Value(1.5));
    EXPECT_EQ(parseValue("1234567", INT32), Value(std::int32_t{1234567}));
    std::locale::global(before);
}

TEST(Text, SmallIntegersAreNumbersAndBooleansDigits)
{
    EXPECT_EQ(holding(std::int8_t{65}).ToStr(), "65");
    EXPECT_EQ(holding(std::uint8_t{200}).ToStr(), "200");
    EXPECT_EQ(holding(true).ToStr(), "1");
    EXPECT_EQ(holding(std::string("a\0b", 3)).ToStr(), std::string("a\0b", 3));
}

TEST(StoredType, DeclaredCodeHoldsOnlyForItsOwnAlternative)
{
    EXPECT_EQ(storedType(ENUM, std::int32_t{1}), ENUM);
    EXPECT_EQ(storedType(INT32, std::string("a")), STRING);
    EXPECT_EQ(storedType(REFERENCE, std::string("A=1")), REFERENCE);
    EXPECT_EQ(storedType(REFERENCE, std::int32_t{1}), INT32);
    EXPECT_EQ(storedType(LAST, std::string("a")), LAST);
    for (const std::int32_t invalid : {0, 13, 15, 33, -1, 1000})
        EXPECT_EQ(storedType(invalid, 1.5F), FLOAT) << invalid;
    EXPECT_EQ(storedType(STRING, static_cast<const char*>("constant")), INVALID);
}

TEST(DistinguishedName, QuotesKeepCommasInOnePair)
{
    using Pairs = std::vector<std::string>;
    EXPECT_EQ(splitPairs("A=1,B=2"), (Pairs{"A=1", "B=2"}));
    EXPECT_EQ(splitPairs("A=1,\"B=2,3\",C=4"), (Pairs{"A=1", "B=2,3", "C=4"}));
    EXPECT_EQ(splitPairs("\"A=1,2\",\"B=3,4\""), (Pairs{"A=1,2", "B=3,4"}));
    EXPECT_EQ(splitPairs("A=1,\"B=2,C=3"), (Pairs{"A=1", "B=2,C=3"})) << "an unclosed quote takes the rest";
    EXPECT_EQ(splitPairs("A=1,"), (Pairs{"A=1"}));
    EXPECT_EQ(splitPairs("\""), (Pairs{""}));
    EXPECT_EQ(splitPairs("A=1,\""), (Pairs{"A=1", ""}));
    EXPECT_TRUE(splitPairs("").empty());
    for (const char* whole : {"A=1", "A=1,B=2", "A=1,\"B=2,3\"", "\"A=1,2\",\"B=3,4\"", "A=1,\"B=2,3\",C=4"}) {
        const SplitDn split = splitOwnPair(whole);
        EXPECT_EQ(joinDn(split.parent, quotedPair(split.pair)), whole);
    }
}
