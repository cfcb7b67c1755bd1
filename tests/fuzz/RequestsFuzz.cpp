// The bodies of every message that the service knows: an input is a sequence of messages, given to the real
// handlers on a store of its own.

#include "tests/fuzz/FuzzedService.h"

#include "platform/messages/Diagnostics.h"
#include "platform/messages/Notifications.h"
#include "platform/moaccess/MOTransactionNotify.h"

#include <cstring>

using namespace TAMO::Messages;
using Fuzz::Input;

namespace {

const std::string root = "ManagedElement=1";
const std::string equipment = root + ",Equipment=1";

template <class Request>
std::string record(Request request, std::int32_t sender = 100, std::int32_t transId = 4711)
{
    if constexpr (requires { request.transId; })
        request.transId = transId;
    return FuzzedService::record(request, sender);
}

/// A request whose fields are set by name.
template <class Request, class Set>
std::string with(Set set, std::int32_t sender = 100, std::int32_t transId = 4711)
{
    Request request;
    set(request);
    return record(request, sender, transId);
}

std::string inserting(const std::string& dn, std::vector<Attribute> attributes = {}, std::int32_t sender = 100,
                      std::int32_t transId = 4711)
{
    const DBObject object = container(dn, std::move(attributes));
    return record(FuzzedService::carrying<TAMO_DBInsert>(object, operationInsert), sender, transId);
}

std::string updating(const std::string& dn, std::vector<Attribute> attributes, std::int32_t transId = 4711)
{
    const DBObject object = container(dn, std::move(attributes));
    return record(FuzzedService::carrying<TAMO_DBUpdate>(object, operationUpdate), 100, transId);
}

std::string deleting(const std::string& dn, std::int32_t transId = 4711)
{
    return with<TAMO_DBDelete>([&](auto& r) { r.operation = operationDelete, r.dn = dn; }, 100, transId);
}

std::string fetching(const std::string& dn, std::int32_t transId = 4711)
{
    return with<TAMO_DBFetch>([&](auto& r) { r.dn = dn; }, 100, transId);
}

std::string transaction(std::int32_t action, std::int32_t transId, std::int32_t sender = 100)
{
    return with<TAMO_DBTransaction>([&](auto& r) { r.action = action; }, sender, transId);
}

std::string setting(const std::string& dn, const std::string& name, const Value& value)
{
    return with<TAMO_DBSetAttributeValue>([&](auto& r) { r.dn = dn, r.attributeName = name, r.value = value; });
}

std::string subscribing()
{
    return with<TAMO_DBRegToNotif>([](auto& r) { r.notificationForAll = 1; });
}

std::vector<Attribute> everyKind()
{
    Attribute parked = text("parked", "p");
    parked.slot = 2;
    Attribute persistent = text("persistent", "it's 100% %s %n");
    persistent.persistent = true;
    return {attribute("a0", std::int8_t{-1}),
            attribute("a1", std::int16_t{-2}),
            attribute("a2", 3),
            attribute("a3", INT64_MIN),
            attribute("a4", 1.5F),
            attribute("a5", 1e300),
            attribute("a6", std::string("t")),
            attribute("a7", std::uint8_t{255}),
            attribute("a8", std::uint16_t{8}),
            attribute("a9", std::uint32_t{9}),
            attribute("a10", UINT64_MAX),
            attribute("a11", true),
            reference("to", root + ";" + equipment),
            text("empty", ""),
            parked,
            persistent};
}

Input sequence(const std::vector<std::string>& records)
{
    Input all = records.front();
    for (std::size_t i = 1; i < records.size(); ++i)
        all += FuzzedService::recordSeparator + records[i];
    return all;
}

Input reads()
{
    return sequence(
        {fetching(root), with<TAMO_DBFetchAttr>([](auto& r) { r.dn = root, r.attributeName = "userLabel"; }),
         with<TAMO_DBFetchAllChildren>([](auto& r) { r.parentDn = root; }),
         with<TAMO_DBFetchMOClass>([](auto& r) { r.moClass = "RbsUnit"; }),
         with<TAMO_DBFetchMOClassWithParent>([](auto& r) { r.parentDn = equipment, r.moClass = "RbsUnit"; }),
         with<TAMO_DBPresence>([](auto& r) { r.dn = equipment; }),
         with<TAMO_getWholeDn>([](auto& r) { r.dn = "Equipment=1", r.parentDn = root; }), record(TAMO_ListClients())});
}

Input writes()
{
    const DBObject common = container("Common", {attribute("resetReason", 3)});
    return sequence({record(FuzzedService::carrying<TAMO_DBInsertToCommonDb>(common, operationInsertToCommonDb)),
                     with<TAMO_DBCreateObject>([](auto& r) { r.templateFile = "template.xml", r.dn = root + ",T=1"; }),
                     setting(equipment, "n", std::int32_t{7}),
                     with<TAMO_DBSetAttributeValues>(
                         [](auto& r) {
                             r.container.dnAttrNameMap = {{"userLabel", root}, {"n", equipment}};
                             r.container.attributes = {{"userLabel", std::string("b")}, {"n", std::int32_t{1}}};
                         },
                         8),
                     with<TAMO_deleteAttribute>([](auto& r) { r.dn = equipment, r.attributeName = "n"; }),
                     deleting(equipment + ",RbsUnit=1,WifiModule=1")});
}

/// What others do to the node: a report, and a status.
Input following()
{
    TAMO_MOAccessReport report;
    report.objects = {{equipment, 'U', {{"n", 3, "5", false}, {"to", 11, root, true}}}, {root + ",Y=1", 'D', {}}};
    constexpr std::uint32_t status[] = {0, 0, 0, 0, 0, 0xEB1CBABE, 2, 1, 4};
    Bytes payload(sizeof status);
    std::memcpy(payload.data(), status, sizeof status);
    return sequence({subscribing(), record(TAMO_EnableAttrSync()), record(report),
                     record(TAMO_MiddlewareStatus(payload)), setting(root, "new", std::string("2"))});
}

} // namespace

std::map<std::string, Input> Fuzz::seeds()
{
    const auto storing = [](bool backup, std::int32_t sender) {
        return with<TAMO_DBStorePersistentDump>([&](auto& r) { r.backup = backup; }, sender);
    };
    return {
        {"reads", reads()},
        {"writes", writes()},
        {"following", following()},
        {"insert", inserting(root + ",X=1", everyKind())},
        {"insert_compressed", inserting(root + ",Big=1", {text("long", std::string(6000, 'x'))})},
        {"update", updating(equipment, everyKind())},
        {"subscriptions", sequence({subscribing(), record(TAMO_ListSubscriptions()),
                                    with<TAMO_DBUnRegToNotif>([](auto& r) { r.notificationForAll = 1; }),
                                    record(TAMO_DBUnRegToAllNotifs())})},
        {"checks", sequence({record(TAMO_DBOrderReady()), record(TAMO_DBIntegrityCheck()),
                             record(TAMO_FaultNotification(1, 1))})},
        {"store", storing(false, 100)},
        {"store_backup", sequence({storing(true, 8), record(TAMO_DBStoreBrMBackup())})},
        {"store_delayed", sequence({inserting("UpgradePackage=1", {attribute("state", std::int32_t{4})}),
                                    storing(false, 100), setting("UpgradePackage=1", "state", std::int32_t{1})})},
        {"load_slot", with<TAMO_DBLoadAlternateStorage>([](auto& r) { r.slot = 1; })},
        {"clean", sequence({record(TAMO_DBCleanDatabase()), inserting("A=1")})},
        {"shutdown", sequence({record(TAMO_DBShutdownDb()), fetching(root)})},
        {"transaction",
         sequence({subscribing(), transaction(transactionStart, 7), inserting(root + ",X=1", everyKind(), 100, 7),
                   updating(root + ",X=1", {text("a6", "changed"), reference("to", equipment)}, 7),
                   fetching(root + ",X=1", 7), deleting(equipment + ",RbsUnit=1,WifiModule=1", 7),
                   transaction(transactionCommit, 7)})},
        {"secmain", sequence({transaction(transactionStart, -7, 13), inserting("S=1", {}, 13, -7),
                              transaction(transactionCommit, -7, 13)})}, // speaks for another
        {"addressing", sequence({inserting(root + ",A=1,B=1"), inserting("\"Quoted,pair=1\",C=1"), deleting(root),
                                 inserting(root + ",Equipment=1")})},
    };
}

Fuzz::Grammar Fuzz::grammar()
{
    return {.form = Grammar::Form::messagePack,
            .separator = FuzzedService::recordSeparator,
            .words = {root,
                      equipment,
                      equipment + ",RbsUnit=1",
                      "Equipment=1",
                      "RbsUnit",
                      "A=1",
                      "X=1",
                      "",
                      ",",
                      "=",
                      "\"A,B=1\"",
                      "A=1,A=1",
                      "userLabel",
                      "n",
                      "to",
                      "reservedBy",
                      "AI_phase",
                      "OAM",
                      "Common",
                      "N:T=s",
                      "%s%n",
                      "'",
                      "baseobject",
                      "UpgradePackage=1",
                      "state",
                      "new",
                      "old",
                      "template.xml",
                      "\xC3\x28"}};
}

std::vector<Fuzz::Minimum> Fuzz::minimums()
{
    std::vector<Minimum> all{{"unknown message", 0, 10}};
    for (const auto& kind : FuzzedService::kinds()) {
        const std::string name = kind.name;
        all.push_back({name + " readable", 1, 20});
        all.push_back({name + " unreadable", 0, 5});
        if (kind.answerId != 0)
            all.push_back({name + " succeeded", 1, 10});
    }
    return all;
}

void Fuzz::finish() {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Input input(reinterpret_cast<const char*>(data), size);
    return Fuzz::runOnService([&](FuzzedService& service) { service.giveRecords(input); });
}
