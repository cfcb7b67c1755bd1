// Reports of the management agent: what subscribers are told of them, and what they leave behind in the
// tree.

#include "tests/requests/Subscribing.h"
#include "tests/support/Faults.h"

#include "platform/moaccess/MOTransactionNotify.h"

#include <fstream>

using namespace TAMO::Messages;

namespace {

using ReportedAttribute = ReportedObject::ReportedAttribute;

class Reporting : public Subscribing {
protected:
    static Bytes bodyOf(std::vector<ReportedObject> objects)
    {
        TAMO_MOAccessReport report;
        report.objects = std::move(objects);
        return report.serialize();
    }
    void handleBody(Bytes body) { handle(TAMO_MOAccessReport::id, std::move(body), vex.id()); }
    void report(std::vector<ReportedObject> objects) { handleBody(bodyOf(std::move(objects))); }
    /// The attribute a of M=1,A=1 and b of B=1 are one.
    void writeMapping() const
    {
        std::ofstream(path("deprecated_attribute_mapping.xml"))
            << "<AttrSyncPairs><syncPair><attrSyncPair>"
               "<attr1><fdn>M=1,A=1</fdn><attrName>a</attrName></attr1>"
               "<attr2><fdn>B=1</fdn><attrName>b</attrName></attr2>"
               "</attrSyncPair></syncPair></AttrSyncPairs>";
    }
    void mirror() { ASSERT_TRUE(ask<TAMO_EnableAttrSyncRsp>(TAMO_EnableAttrSync(), second).success) << log.all(); }
    std::string ticketOf(const Fields& fields) { return std::to_string(subscribe(client, fields)); }

    ScopedVariable mappingDirectory{"DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", path("")};
};

ReportedAttribute string(const std::string& name, const std::string& value)
{
    return {name, IPCData::STRING, value, false};
}

ReportedAttribute referenceTo(const std::string& dns, const std::string& name = "ref")
{
    return {name, IPCData::REFERENCE, dns, false};
}

} // namespace

TEST_F(Reporting, EachLetterHasItsOperationAndItsKindOfObject)
{
    const std::string ofModel = ticketOf({.forAll = model}) + ":{";
    const std::string ofOthers = ticketOf({.forAll = others}) + ":{";
    for (const auto& [letter, expected] : {std::pair{'I', ofModel + "18"},
                                           {'U', ofModel + "23"},
                                           {'D', ofModel + "9"},
                                           {'i', ofOthers + "18"},
                                           {'u', ofOthers + "23"},
                                           {'d', ofOthers + "9"},
                                           {'X', ofOthers + "23"},
                                           {'\n', ofOthers + "23"},
                                           {'\xff', ofOthers + "23"}}) {
        report({{"A=1", letter, {string("a", "x")}}});
        EXPECT_EQ(told(client), expected + " A=1: a=x} ") << letter;
    }
    EXPECT_EQ(object("A=1"), nullptr) << "the agent keeps its objects itself";
}

TEST_F(Reporting, ObjectsAreToldInOrderAndTheTransactionLast)
{
    const std::string item = ticketOf({.dn = "U=1,2"}) + ":";
    const std::string whole = ticketOf({.forAll = all}) + ":";
    const std::string transaction = ticketOf({.transactions = 1}) + ":";
    const std::string byAttribute = ticketOf({.dn = "A=1", .instance = 1, .attribute = "a"});
    report({{"M=1,\"U=1,2\"", 'U', {string("a", "x"), string("b", "y")}},
            {"A=1", 'u', {string("a", "z")}},
            {"M=1,EventType=1", 'I', {string("a", "x")}},
            {"M=1,None=1", 'U', {}},
            {"M=1,Gone=1", 'D', {}}});
    EXPECT_EQ(told(client),
              item + "23 M=1,\"U=1,2\" " + whole + "{23 M=1,\"U=1,2\": a=x b=y} " + whole + "{23 A=1: a=z} " + whole +
                  "{9 M=1,Gone=1: =} " + transaction +
                  "[23 M=1,\"U=1,2\" a,b; 23+ A=1 a; 18 M=1,EventType=1 a; 23 M=1,None=1; 9 M=1,Gone=1] ");
    report({});
    EXPECT_TRUE(client.gotNothing()) << "nothing changed";
}

TEST_F(Reporting, PairsCarryTheReportedTypeAndFlag)
{
    subscribe(client, {.dn = "A=1"});
    subscribe(client, {.forAll = all});
    report({{"M=1,A=1", 'I', {{"n", IPCData::ENUM, "-7", true}, {"wrong", 13, "x", false}}}});
    const auto item = client.next<TAMO_DBNotification>();
    ASSERT_TRUE(item);
    EXPECT_EQ(item->dn, "A=1");
    EXPECT_EQ(item->wholeDn, "M=1,A=1");
    EXPECT_EQ(item->value, Value(std::string()));
    const auto whole = client.next<TAMO_DBNotification>();
    ASSERT_TRUE(whole && whole->attributeList.size() == 2);
    const attrNameValuePair& pair = whole->attributeList[0];
    EXPECT_EQ(pair.value, Value(std::int32_t{-7}));
    EXPECT_EQ(pair.valueType, IPCData::ENUM);
    EXPECT_EQ(pair.operation, 18);
    EXPECT_EQ(pair.storageKind, 0);
    EXPECT_TRUE(pair.hidden);
    EXPECT_EQ(whole->attributeList[1].valueType, 13);
    EXPECT_FALSE(whole->attributeList[1].hidden);
}

TEST_F(Reporting, TextsBecomeValuesOfTheirTypeOrZeroWithAWarning)
{
    using namespace IPCData;
    struct Case {
        std::int32_t type;
        std::string text;
        Value value;
        std::string line = {}; ///< expected behind "DatabaseWrapper::ConvertValueFromString: "
    };
    const auto failed = [](const char* type) { return std::string("failed to convert ") + type; };
    const Case cases[] = {
        {INT8, "-128", std::int8_t{-128}},
        {INT8, "384", std::int8_t{-128}}, // its low 8 bits
        {INT8, "32768", std::int8_t{0}, failed("INT8")},
        {INT16, "-32768", std::int16_t{-32768}},
        {INT16, "1 ", std::int16_t{0}, failed("INT16")},
        {INT32, "2147483647", std::int32_t{2147483647}},
        {INT32, "12abc", std::int32_t{0}, failed("INT32")},
        {INT64, "-9223372036854775807", std::int64_t{-9223372036854775807}},
        {INT64, "", std::int64_t{0}, failed("INT64")},
        {UINT8, "255", std::uint8_t{255}},
        {UINT8, "x", std::uint8_t{0}, failed("UINT8")},
        {UINT16, "65535", std::uint16_t{65535}},
        {UINT16, "65536", std::uint16_t{0}, failed("UINT16")},
        {UINT32, "4294967295", std::uint32_t{4294967295}},
        {UINT32, "-1", std::uint32_t{0}, failed("UINT32")},
        {UINT64, "18446744073709551615", std::uint64_t{18446744073709551615U}},
        {UINT64, " 1", std::uint64_t{0}, failed("UINT64")},
        {STRING, " any text ", std::string(" any text ")},
        {BOOLEAN, "0", false},
        {BOOLEAN, "false", true},
        {BOOLEAN, "", true},
        {ENUM, "-3", std::int32_t{-3}},
        {ENUM, "RED", std::int32_t{0}, failed("ENUM")},
        {DECIMAL64, "1.5e300", 1.5e300},
        {DECIMAL64, "1,5", 0.0, failed("DECIMAL64")},
        {FLOAT, "0.1", 0.1F},
        {FLOAT, "nan", 0.0F, failed("FLOAT")},
        {FLOAT, "1e300", 0.0F, failed("FLOAT")},
        {REFERENCE, "A=1;B=1", std::string("A=1;B=1")},
        {SECOND_REFERENCE, "A=1", std::string("A=1")},
        {TEXT, "7", std::string("7")},
        {18, "7", std::string("7")},
        {32, "7", std::string("7")},
        {INVALID, "7", std::string("7"), "unknown value type, set to string"},
        {13, "7", Value(), "invalid type"},
        {15, "7", Value(), "invalid type"},
        {33, "7", Value(), "invalid type"},
        {-1, "7", Value(), "invalid type"},
        {-2147483647 - 1, "7", Value(), "invalid type"},
    };
    for (const Case& one : cases) {
        log.forget();
        EXPECT_EQ(DatabaseWrapper::ConvertValueFromString(one.text, one.type), one.value) << one.type << one.text;
        const int errors = one.line == "invalid type" ? 1 : 0;
        const int warnings = !one.line.empty() && errors == 0 ? 1 : 0;
        EXPECT_EQ(log.count(mwLogError), errors) << log.all();
        EXPECT_EQ(log.count(mwLogWarning), warnings) << log.all();
        EXPECT_EQ(log.count(errors ? mwLogError : mwLogWarning, "DatabaseWrapper::ConvertValueFromString: " + one.line),
                  errors + warnings)
            << log.all();
    }
    const std::string ticket = ticketOf({.forAll = all});
    report({{"A=1", 'U', {{"n", INT32, "seven", false}}}});
    EXPECT_EQ(told(client), ticket + ":{23 A=1: n=0} ") << "announced all the same";
}

TEST_F(Reporting, ReferencesAreNotedWithTheirTargets)
{
    ASSERT_TRUE(insert("T=1", {text("reservedBy", "")}));
    ASSERT_TRUE(insert("T=2", {attribute("reservedBy", std::int32_t{1})}));
    ASSERT_TRUE(insert("T=3", {text("reservedBy", "Other=1")}));
    const std::string ticket = ticketOf({.forAll = all});
    report({{"M=1,A=1",
             'U',
             {referenceTo("T=2"),
              referenceTo("T=1;T=3;Missing=1"),
              {"again", IPCData::SECOND_REFERENCE, "T=3", false},
              referenceTo("T=1", "reservedBy"),
              string("noReference", "T=1")}}});
    EXPECT_EQ(value("T=1", "reservedBy"), "M=1,A=1");
    EXPECT_EQ(value("T=3", "reservedBy"), "Other=1;M=1,A=1");
    EXPECT_EQ(log.count(mwLogError, "DatabaseWrapper::handleMOAccessNotify: unknown exception when handling reference "
                                    "type attribute"),
              1);
    EXPECT_EQ(told(client), ticket + ":{23 T=1: reservedBy=M=1,A=1} " + ticket +
                                ":{23 T=3: reservedBy=Other=1;M=1,A=1} " + ticket +
                                ":{23 M=1,A=1: ref=T=2 ref=T=1;T=3;Missing=1 again=T=3 reservedBy=T=1 "
                                "noReference=T=1} ");
    EXPECT_TRUE(anotherConnectionCanWrite());
}

TEST_F(Reporting, MirroredAttributesAreToldOnceBehindTheObjects)
{
    ASSERT_TRUE(insert("M=1"));
    ASSERT_TRUE(insert("B=1", {text("b", "old")}));
    writeMapping();
    const std::string whole = ticketOf({.forAll = all}) + ":";
    const std::string mirrored =
        std::to_string(subscribe(second, {.dn = "B=1", .instance = 1, .attribute = "b"})) + ":";
    const std::string transaction = ticketOf({.transactions = 1}) + ":";
    const std::vector<ReportedObject> objects{{"M=1,A=1", 'U', {string("a", "new")}}, {"C=1", 'U', {string("c", "x")}}};
    const std::string reported = whole + "{23 M=1,A=1: a=new} " + whole + "{23 C=1: c=x} ";
    const std::string together = transaction + "[23 M=1,A=1 a; 23+ C=1 c] ";
    report(objects);
    EXPECT_EQ(told(client), reported + together);
    EXPECT_EQ(value("B=1", "b"), "old") << "not switched on";

    mirror();
    told(client); // what the first synchronisation wrote
    report(objects);
    EXPECT_EQ(told(client), reported + whole + "{23 B=1: b=new} " + together);
    EXPECT_EQ(value("B=1", "b"), "new");
    EXPECT_EQ(told(second), mirrored + "23 B=1 b=new ");
    report({{"M=1,A=1", 'U', {string("a", "old")}}, {"B=1", 'U', {string("b", "successor")}}});
    EXPECT_EQ(value("M=1,A=1", "a"), "successor") << "reported together, the successor counts";
    EXPECT_EQ(value("B=1", "b"), "new");
    told(client);
    report({{"M=1,A=1", 'D', {string("a", "new")}}});
    EXPECT_EQ(told(client), whole + "{9 M=1,A=1: a=new} " + transaction + "[9 M=1,A=1 a] ");
    EXPECT_EQ(told(second), mirrored + "9 B=1 b=new ");
    EXPECT_EQ(value("B=1", "b"), "(none)");
}

TEST_F(Reporting, ReportThatCannotBeReadIsDroppedAsAWhole)
{
    ASSERT_TRUE(insert("T=1", {text("reservedBy", "")}));
    subscribe(client, {.dn = "A=1"});
    subscribe(client, {.forAll = all});
    subscribe(client, {.transactions = 1});
    const std::vector<ReportedObject> objects{{"A=1", 'U', {string("a", "x"), referenceTo("T=1")}},
                                              {"M=1,A=1", 'D', {}}};
    const Bytes whole = bodyOf(objects);
    const auto refused = [&](Bytes body) {
        log.forget();
        handleBody(std::move(body));
        return log.count(mwLogError, "MOAccess notify error: a report of ") == 1;
    };
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_TRUE(refused({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)})) << length;
    Bytes longer = whole;
    longer.push_back(0xC0);
    const Bytes manyObjects{0x91, 0xCE, 0xFF, 0xFF, 0xFF, 0xFF};
    const Bytes manyAttributes{0x94, 0x01, 0xA1, 'A', 0xA1, 'U', 0xCE, 0x0F, 0xFF, 0xFF, 0xFF};
    const Bytes noLetter{0x94, 0x01, 0xA1, 'A', 0xA0, 0x00};
    const Bytes twoLetters{0x94, 0x01, 0xA1, 'A', 0xA2, 'U', 'U', 0x00};
    const Bytes oneTooMany{0x95, 0x01, 0xA1, 'A', 0xA1, 'U', 0x00, 0x00};
    const Bytes noList{0x01};
    for (const Bytes& body :
         {longer, manyObjects, manyAttributes, noLetter, twoLetters, oneTooMany, noList, TAMO_DBFetch().serialize()})
        EXPECT_TRUE(refused(body)) << log.all();
    service.handleMOAccessNotify(nullptr, 0);
    EXPECT_TRUE(client.gotNothing());
    EXPECT_EQ(value("T=1", "reservedBy"), "") << "not one object of it was acted on";
    handleBody(whole);
    EXPECT_FALSE(told(client).empty());
    EXPECT_EQ(value("T=1", "reservedBy"), "A=1");
}

TEST_F(Reporting, ShortageOfMemoryAtAnyPointEndsInTheLog)
{
    ASSERT_TRUE(insert("M=1"));
    ASSERT_TRUE(insert("T=1", {text("reservedBy", "")}));
    ASSERT_TRUE(insert("B=1", {text("b", "old")}));
    writeMapping();
    mirror();
    subscribe(client, {.forAll = all});
    subscribe(client, {.transactions = 1});
    const std::string mirrored = std::to_string(subscribe(second, {.dn = "B=1", .instance = 1, .attribute = "b"}));
    bool happened = true;
    int passes = 0;
    for (; happened; ++passes) {
        const std::string newValue = std::to_string(passes);
        const RawMessage raw{TAMO_MOAccessReport::id,
                             vex.id(),
                             0,
                             0,
                             bodyOf({{"M=1,A=1", 'U', {string("a", newValue), referenceTo("T=1")}}, {"C=1", 'D', {}}}),
                             nullptr};
        log.forget();
        {
            const RefusedMemory scarce(passes);
            ASSERT_NO_THROW(service.handleMOAccessNotify(&raw, raw.body.size())) << passes;
            happened = RefusedMemory::happened();
        }
        const bool complained = log.count(mwLogError) > 0;
        const bool toldWhole = told(client).find("[23 M=1,A=1 a,ref; 9 C=1]") != std::string::npos;
        const bool toldMirrored = told(second) == mirrored + ":23 B=1 b=" + newValue + " ";
        ASSERT_TRUE(complained || (toldWhole && toldMirrored)) << passes;
        ASSERT_TRUE(anotherConnectionCanWrite()) << passes;
    }
    EXPECT_GT(passes, 50) << "it came to that";
    EXPECT_EQ(value("T=1", "reservedBy"), "M=1,A=1");
}

TEST_F(Reporting, LateAgentFindsItsNotificationsInTheBuffer)
{
    const Fields fields{.forAll = model, .withAlternate = 1};
    report({{"A=1", 'U', {string("a", "lost")}}});
    makeReady();
    report({{"A=1", 'U', {string("a", "x")}}, {"B=1", 'u', {string("a", "x")}}, {"B=2", 'D', {}}});
    EXPECT_TRUE(vex.gotNothing());
    const std::string ticket = std::to_string(subscribe(vex, fields));
    EXPECT_EQ(told(vex), ticket + ":{23 A=1: a=x} " + ticket + ":{9 B=2: =} ");
}

namespace {
class Refusing : public TempStore {};
} // namespace

TEST_F(Refusing, ServiceStartsWithoutReportsWhenTheAgentRefusesThem)
{
    NodeState state;
    state.moAccess = 0;
    middleware.set(state);
    DatabaseWrapper service("Requests");
    const DatabaseNode node(path("runtime"));
    service.initialise();
    EXPECT_EQ(log.count(mwLogError, "Registering to MOAccess notifications failed."), 1);
    EXPECT_EQ(log.count(mwLogError, "MOAccess error: [the management agent refuses subscriptions]"), 1);
}
