// What goes in and out as text: JSON, arguments, DNs, script lines.

#include "tools/client/ClientNames.h"
#include "tools/client/Database.h"
#include "tools/client/QueuedObjects.h"
#include "tools/client/SubscriptionKey.h"
#include "tools/tamoctl/ArgumentValues.h"
#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/TreeWalk.h"
#include "values/ValueType.h"

#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>

namespace {

/// The same value of the same kind; floating values bit by bit, so that -0 is not 0.
bool same(const Value& left, const Value& right)
{
    if (const auto* number = std::get_if<double>(&left); number && std::holds_alternative<double>(right))
        return std::bit_cast<std::uint64_t>(*number) == std::bit_cast<std::uint64_t>(std::get<double>(right));
    if (const auto* number = std::get_if<float>(&left); number && std::holds_alternative<float>(right))
        return std::bit_cast<std::uint32_t>(*number) == std::bit_cast<std::uint32_t>(std::get<float>(right));
    return left == right;
}

template <class Number>
void addExtremes(DBObject& object, std::int32_t type)
{
    using Limits = std::numeric_limits<Number>;
    const Number numbers[] = {Limits::min(),
                              Limits::lowest(),
                              Limits::max(),
                              Number(0),
                              Limits::denorm_min(),
                              static_cast<Number>(-Limits::infinity()),
                              Limits::infinity(),
                              static_cast<Number>(1) / 3,
                              static_cast<Number>(0.1),
                              static_cast<Number>(-0.0)};
    for (const Number number : numbers)
        object.addAttribute(newAttribute(typeName(type) + std::to_string(object.attributes.size()), number, type));
}

std::string allBytes()
{
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

ExitCode codeOf(const std::function<void()>& work)
{
    try {
        work();
        return ExitCode::success;
    } catch (const Failure& failure) {
        return failure.code;
    }
}

} // namespace

TEST(ObjectLine, EveryTypesExtremesComeBackAsTheyWere)
{
    DBObject object = newObject("ManagedElement=1,\"Odd=a,b\",Leaf=\"q%ü", 3, false, true);
    addExtremes<std::int8_t>(object, IPCData::INT8);
    addExtremes<std::int16_t>(object, IPCData::INT16);
    addExtremes<std::int32_t>(object, IPCData::ENUM);
    addExtremes<std::int64_t>(object, IPCData::INT64);
    addExtremes<std::uint8_t>(object, IPCData::UINT8);
    addExtremes<std::uint16_t>(object, IPCData::UINT16);
    addExtremes<std::uint32_t>(object, IPCData::UINT32);
    addExtremes<std::uint64_t>(object, IPCData::UINT64);
    addExtremes<float>(object, IPCData::FLOAT);
    addExtremes<double>(object, IPCData::DECIMAL64);
    for (const std::string& text :
         {std::string(), std::string("Infinity"), std::string("a\0b", 3), std::string("\n\x7F\"\\ü€𝄞"),
          std::string("\xC0\x80"), std::string("\xED\xA0\x80"), allBytes()})
        for (const std::int32_t type : {9, 11, 14, 18, 31, 32})
            object.addAttribute(
                newAttribute("text" + std::to_string(object.attributes.size()), text, type, true, true));
    object.addAttribute(newAttribute("flag", true, IPCData::BOOLEAN, true, false));
    object.addAttribute(newAttribute("base64:tricky", false, IPCData::BOOLEAN, false, true));
    object.addAttribute(newAttribute("name \xFF", std::string("x"), IPCData::STRING));

    const std::string line = jsonObject(object, wholeDnOf(object), false);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    const DBObject read = objectFromJson(line);
    EXPECT_EQ(wholeDnOf(read), wholeDnOf(object));
    EXPECT_EQ(std::tie(read.MOInstance, read.isMOMObject, read.system), std::make_tuple(3, false, true));
    ASSERT_EQ(read.attributes.size(), object.attributes.size());
    for (const auto& [name, attribute] : object.attributes) {
        const Attribute* back = read.getAttribute(name);
        ASSERT_NE(back, nullptr) << name;
        EXPECT_TRUE(same(back->value, attribute.value)) << name << " " << jsonValue(attribute.value);
        EXPECT_EQ(std::tie(back->type, back->hidden, back->persistent),
                  std::tie(attribute.type, attribute.hidden, attribute.persistent));
    }
    EXPECT_EQ(jsonObject(read, wholeDnOf(read), false), line);
}

TEST(ObjectLine, FloatingValuesReadBackAndAreShort)
{
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        const auto number = std::bit_cast<float>(static_cast<std::uint32_t>(random()));
        if (!std::isfinite(number))
            continue;
        const std::string line =
            R"({"dn": "A=1", "attributes": {"f": {"type": "FLOAT", "value": )" + jsonValue(number) + "}}}";
        ASSERT_TRUE(same(objectFromJson(line).getAttribute("f")->value, number)) << line;
    }
    EXPECT_EQ(jsonValue(0.1f), "0.1");
    EXPECT_EQ(jsonValue(0.1), "0.1");
}

TEST(ObjectLine, MissingKeysHaveTheirDefaultsAndGetsOutputIsTaken)
{
    const DBObject object = objectFromJson(R"({"dn": "A=1,B=2", "alternateAttributes": {}})");
    EXPECT_EQ(object.parentDn, "A=1");
    EXPECT_EQ(object.parentMOInstance, 1);
    EXPECT_EQ(object.dn, "B=2");
    EXPECT_TRUE(object.isMOMObject);
    EXPECT_EQ(objectFromJson(R"({"dn": "A=1"})").parentDn, "");
    const DBObject coded =
        objectFromJson(R"({"dn": "A=1", "attributes": {"x": {"type": 18, "value": {"base64": "/wA="}}}})");
    EXPECT_EQ(std::get<std::string>(coded.getAttribute("x")->value), std::string("\xFF\0", 2));
}

TEST(ObjectLine, WrongLinesAreRefused)
{
    const auto withValue = [](const std::string& type, const std::string& value) {
        return R"({"dn": "A=1", "attributes": {"x": {"type": )" + type + R"(, "value": )" + value + "}}}";
    };
    const std::string wrong[] = {
        "",
        "{",
        "[]",
        "null",
        "1",
        "{\"dn\": \"A=1\"} x",
        "{\"dn\": \"\xFF\"}",
        R"({"dn": 1})",
        R"({"dn": ""})",
        R"({"dn": "A=1,"})",
        R"({"dn": "A=1,,B=1"})",
        "{\"dn\": \"A\\u0000=1\"}",
        R"({"dn": "A=1", "dn": "A=2"})",
        R"({"dn": "A=1", "atributes": {}})",
        R"({"dn": "A=1", "attributes": []})",
        R"({"dn": "A=1", "MOInstance": 4294967296})",
        R"({"dn": "A=1", "system": 1})",
        R"({"dn": "A=1", "attributes": {"x": 1}})",
        R"({"dn": "A=1", "attributes": {"": {"type": 9, "value": ""}}})",
        R"({"dn": "A=1", "attributes": {"x": {"type": "INT8", "value": 1}, "x": {"type": "INT8", "value": 2}}})",
        R"({"dn": "A=1", "attributes": {"x": {"type": "INT32"}}})",
        R"({"dn": "A=1", "attributes": {"x": {"value": 1}}})",
        withValue("\"INT32\"", "2147483648"),
        withValue("\"UINT64\"", "18446744073709551616"),
        withValue("\"UINT8\"", "-1"),
        withValue("\"INT8\"", "1.0"),
        withValue("\"INT8\"", "\"1\""),
        withValue("\"boolean\"", "1"),
        withValue("\"string\"", "1"),
        withValue("\"FLOAT\"", "1e39"),
        withValue("\"DECIMAL64\"", "1e999"),
        withValue("\"DECIMAL64\"", "NaN"),
        withValue("\"DECIMAL64\"", "\"NaN\""),
        withValue("\"string\"", "{\"base64\": \"a\"}"),
        withValue("\"string\"", "{\"base64\": \"====\"}"),
        withValue("13", "0"),
        withValue("33", "0"),
        withValue("\"int32\"", "0"),
        std::string(100000, '['),
        R"({"dn":)" + std::string(100000, '{')};
    for (const std::string& line : wrong)
        EXPECT_EQ(codeOf([&] { objectFromJson(line); }), ExitCode::usage) << line.substr(0, 100);
}

TEST(Argument, ValuesAreReadWholeAndExact)
{
    EXPECT_EQ(valueFromArgument("-128", IPCData::INT8, "x"), Value(std::int8_t{-128}));
    EXPECT_EQ(valueFromArgument("18446744073709551615", IPCData::UINT64, "x"), Value(UINT64_MAX));
    EXPECT_EQ(valueFromArgument("1", IPCData::BOOLEAN, "x"), Value(true));
    EXPECT_EQ(valueFromArgument("-Infinity", IPCData::FLOAT, "x"), Value(-std::numeric_limits<float>::infinity()));
    EXPECT_EQ(valueFromArgument(" a=b ", IPCData::REFERENCE, "x"), Value(std::string(" a=b ")));
    const std::pair<const char*, std::int32_t> wrong[] = {
        {"300", IPCData::INT8},    {"-1", IPCData::UINT8},  {"12abc", IPCData::INT32},   {"", IPCData::INT32},
        {" 1", IPCData::INT32},    {"1.5", IPCData::INT64}, {"nan", IPCData::DECIMAL64}, {"1e39", IPCData::FLOAT},
        {"yes", IPCData::BOOLEAN}, {"2", IPCData::BOOLEAN}, {"inf", IPCData::DECIMAL64}, {"1", IPCData::INVALID}};
    for (const auto& [text, type] : wrong)
        EXPECT_EQ(codeOf([&] { valueFromArgument(text, type, "x"); }), ExitCode::usage) << text;
}

TEST(Argument, NameTypeAndValueAreToldApart)
{
    const Assignment plain = parseAssignment("name=a=b:c");
    EXPECT_EQ(plain.name, "name");
    EXPECT_EQ(plain.text, "a=b:c");
    EXPECT_EQ(plain.type(IPCData::STRING), IPCData::STRING);
    const Assignment typed = parseAssignment("a:b:INT8=");
    EXPECT_EQ(typed.name, "a:b");
    EXPECT_EQ(typed.type(IPCData::STRING), IPCData::INT8);
    for (const char* wrong : {"name", "=x", ":INT8=1"})
        EXPECT_EQ(codeOf([&] { parseAssignment(wrong); }), ExitCode::usage) << wrong;
    EXPECT_EQ(codeOf([] { parseAssignment("a:int=1").type(9); }), ExitCode::usage);
}

TEST(Argument, ClientsHaveNamesAndNumbers)
{
    EXPECT_EQ(clientNode("Startup"), 1);
    EXPECT_EQ(clientNode("webui"), 11);
    EXPECT_EQ(clientNode("Transport"), 16);
    EXPECT_EQ(clientNode("4711"), 4711);
    for (const char* nobody : {"", "0", "-1", "Database", "12x", "99999999999"})
        EXPECT_EQ(clientNode(nobody), std::nullopt) << nobody;
}

TEST(Dn, IsTakenApartWithItsQuotes)
{
    const DBObject object = newObject(checkedDn("ManagedElement=1,\"Odd=a,b\",Leaf=1"));
    EXPECT_EQ(object.dn, "Leaf=1");
    EXPECT_EQ(object.parentDn, "ManagedElement=1,\"Odd=a,b\"");
    const DBObject odd = newObject(checkedDn("\"ManagedElement=1\",\"Odd=a,b\""));
    EXPECT_EQ(odd.dn, "Odd=a,b");
    EXPECT_EQ(odd.parentDn, "ManagedElement=1"); // needless quotes are gone
    EXPECT_EQ(wholeDnOf(odd), "ManagedElement=1,\"Odd=a,b\"");

    // The service gives parents back without their quotes; what was asked for is known better.
    DBObject fetched = newObject("Leaf=1");
    fetched.parentDn = "ManagedElement=1,Odd=a,b";
    EXPECT_EQ(shownDn("ManagedElement=1,\"Odd=a,b\",Leaf=1", fetched), "ManagedElement=1,\"Odd=a,b\",Leaf=1");
    EXPECT_EQ(shownDn("Leaf=1", fetched), "ManagedElement=1,Odd=a,b,Leaf=1");
}

TEST(Text, Base64BothWays)
{
    for (const auto& [plain, coded] : std::initializer_list<std::pair<std::string, std::string>>{
             {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFF\xEF\xBE", "/+++"}}) {
        EXPECT_EQ(base64(plain), coded);
        EXPECT_EQ(fromBase64(coded), plain);
    }
    EXPECT_EQ(fromBase64(base64(allBytes())), allBytes());
    for (const char* wrong : {"Zg", "Zg=", "Z===", "Zg==Zg==", "Zm9 ", "=Zm9"})
        EXPECT_EQ(fromBase64(wrong), std::nullopt) << wrong;
}

TEST(Text, ScriptLinesSplitAsInAShell)
{
    using Words = std::vector<std::string>;
    EXPECT_EQ(splitWords(R"(set  A=1 'x=a b' "y=\"q\" \n" z=\ \# # comment)"),
              (Words{"set", "A=1", "x=a b", R"(y="q" \n)", "z= #"}));
    EXPECT_EQ(splitWords("\tget ''\r"), (Words{"get", ""}));
    EXPECT_EQ(splitWords("# nothing"), Words{});
    for (const char* open : {"get 'A", "get \"A", "get A\\"})
        EXPECT_EQ(codeOf([&] { splitWords(open); }), ExitCode::usage) << open;
}

TEST(Text, NothingReachesATerminalAsControl)
{
    EXPECT_EQ(printable("a\n\x1B[1mü\x80\x7F"), "a\\x0a\\x1b[1mü\\x80\\x7f");
}

TEST(Key, TextsOfTheFieldsAreReadBackAndOthersRefused)
{
    const auto key = SubscriptionKey::fromText("ManagedElement=1,Site=a,b,12,state,23,,1");
    ASSERT_TRUE(key);
    EXPECT_EQ(key->dn, "ManagedElement=1,Site=a,b");
    EXPECT_EQ(std::tie(key->instance, key->operation, key->withAlternate), std::make_tuple(12, 23, 1));
    EXPECT_EQ(key->attribute, "state");
    for (const char* text : {"UpgradePackage=1,1,state,,", "Cell,,,,", "A=1,2,,,", "A=1,,,,,1", ",,,,2", ",,,,3,1",
                             ",,,,", ",,,,,1", "TRANSACTIONS", "A=1,,a,,", "A=1,1,a,2147483647,"}) {
        const auto read = SubscriptionKey::fromText(text);
        ASSERT_TRUE(read) << text;
        EXPECT_EQ(read->text(), text);
    }
    EXPECT_EQ(SubscriptionKey::fromText(",,,,2,1")->forAll, 2);
    for (const char* text :
         {"", "A=1", "A=1,,,", "A=1,01,,,", "A=1,0,,,", "A=1,-1,,,", "A=1,x,,,", "A=1,1,a,23", "A=1,,,,1", "A=1,,,,,x",
          "A=1,1,a,2147483648,", ",,,,0", ",,,,2,", ",,,,2,1,1", "TRANSACTIONS,1", "transactions"})
        EXPECT_FALSE(SubscriptionKey::fromText(text)) << text;
    for (const char* text : {"Cell,,,,", "A=1,1,a,9,", "A=1,2,,,,1", ",,,,1", "TRANSACTIONS"})
        EXPECT_EQ(SubscriptionKey::fromText(text)->whyItNeverMatches(), "") << text;
    for (const char* text : {",,,,", "A=1,,a,,", "A=1,1,,23,", "A=1,1,a,6,", ",,,,4", ",,,,1,2"})
        EXPECT_NE(SubscriptionKey::fromText(text)->whyItNeverMatches(), "") << text;
}

TEST(Queued, RemovalTakesWhatIsBelowUntilItIsInsertedAgain)
{
    QueuedObjects queued;
    queued.inserted("A=1,B=1,C=1", 1);
    queued.removed("A=1,B=1", 1);
    EXPECT_EQ(queued.present("A=1,B=1,C=1", 1), false);
    EXPECT_EQ(queued.present("A=1,B=1,D=1", 1), false);
    EXPECT_EQ(queued.present("A=1,B=12", 1), std::nullopt);
    EXPECT_EQ(queued.present("A=1,B=1", 2), std::nullopt);
    queued.inserted("A=1,B=1", 1);
    EXPECT_EQ(queued.present("A=1,B=1", 1), true);
    EXPECT_EQ(queued.present("A=1,B=1,C=1", 1), false);
}

TEST(SiblingOrder, CountsNumbersByValueAndIsTotal)
{
    const std::vector<std::string> ordered{"",
                                           "Cell",
                                           "Cell=",
                                           "Cell=01",
                                           "Cell=1",
                                           "Cell=2",
                                           "Cell=10",
                                           "Cell=10,a",
                                           "Cell=99999999999999999999",
                                           "Cell=100000000000000000000",
                                           "Cell=x",
                                           "cell=1"};
    for (std::size_t i = 0; i < ordered.size(); ++i)
        for (std::size_t j = 0; j < ordered.size(); ++j)
            EXPECT_EQ(pairLess(ordered[i], ordered[j]), i < j) << ordered[i] << " " << ordered[j];
}
