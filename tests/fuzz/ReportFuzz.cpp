// Reports of the management agent. The first byte of an input says whether attributes are synchronised, the rest
// is the report's body.

#include "tests/fuzz/FuzzedService.h"

#include "platform/messages/Requests.h"
#include "platform/moaccess/MOTransactionNotify.h"

using namespace TAMO::Messages;
using namespace Fuzz;

namespace {

/// The tree but for what a report may touch: lists of referrers, and synchronised attributes.
const std::string untouchable =
    "select o.dn||'|'||o.parent||'|'||a.name||'|'||a.value from DBObject o left join Attribute a on a.belongsTo = o.id "
    "where a.name is null or a.name not in ('reservedBy','old','new') order by o.id, a.name";

Input input(bool synchronised, std::vector<ReportedObject> objects)
{
    TAMO_MOAccessReport report;
    report.objects = std::move(objects);
    const Bytes body = report.serialize();
    return (synchronised ? "1" : "0") + std::string(body.begin(), body.end());
}

void subscribe(FuzzedService& service)
{
    TAMO_DBRegToNotif request;
    request.transId = 1;
    request.transactions = 1;
    service.give(request.id, request.serialize(), 100);
    request.transactions = 0;
    request.notificationForAll = 1;
    service.give(request.id, request.serialize(), 100);
}

void checkTold(const FuzzedService& service, const std::vector<ReportedObject>& objects)
{
    std::size_t reports = 0;
    for (const TAMO_DBNotification& each : service.notifications) {
        if (each.transaction.entries.empty())
            continue;
        ++reports;
        require(each.transaction.entries.size() == objects.size(), "the transaction tells of every object");
        for (std::size_t i = 0; i < objects.size(); ++i)
            require(each.transaction.entries[i].dn == objects[i].dn &&
                        each.transaction.entries[i].attributes.size() == objects[i].attributes.size(),
                    "the transaction tells of the objects in order");
    }
    require(reports == (objects.empty() ? 0 : 1), "one transaction for a report");
}

} // namespace

std::map<std::string, Input> Fuzz::seeds()
{
    const std::string root = "ManagedElement=1";
    std::vector<ReportedObject::ReportedAttribute> everyType;
    for (std::int32_t type = -1; type <= 33; ++type)
        everyType.push_back({"t" + std::to_string(type), type, type % 2 ? "17" : "-1.5e3", type == 9});
    const std::string texts[] = {"", " 1", "1 ", "0x10", "99999999999999999999", "-129", "nan", "1e400", "\xC3\x28"};
    std::vector<ReportedObject::ReportedAttribute> oddTexts;
    for (const std::string& each : texts)
        for (const std::int32_t type : {1, 5, 7, 8, 10, 12, 16, 17})
            oddTexts.push_back({"a", type, each, false});
    std::map<std::string, Input> all;
    all["good_types"] = input(false, {{root + ",T=1", 'I', everyType}});
    all["odd_texts"] = input(false, {{root, 'u', oddTexts}});
    all["good_letters"] =
        input(false, {{"A=1", 'I', {}}, {"B=1", 'D', {}}, {"C=1", 'd', {}}, {"D=1", '?', {{"n", 3, "1", 0}}}});
    all["good_references"] = input(
        false, {{root + ",Equipment=1",
                 'U',
                 {{"to", 11, root + ";;X=1", false}, {"also", 31, root, false}, {"reservedBy", 11, root, false}}}});
    all["good_synchronised"] =
        input(true, {{root, 'U', {{"old", 9, "5", false}}}, {root, 'D', {{"new", 9, "", false}}}});
    all["no_objects"] = input(true, {});
    all["odd_dns"] = input(true, {{"", 'U', {{"", 9, "", false}}}, {",=,\"", 'U', {{"old", 11, ",", false}}}});
    all["truncated"] = all["good_types"].substr(0, all["good_types"].size() / 2);
    all["claims_objects"] = Input("0\x91\xCE\xFF\xFF\xFF\xFF", 7);
    all["claims_attributes"] = Input("0\x94\x01\xA1Z\xA1U\xCE\x7F\xFF\xFF\xFF", 11);
    return all;
}

Grammar Fuzz::grammar()
{
    return {.form = Grammar::Form::messagePack,
            .separator = {},
            .words = {"ManagedElement=1", "ManagedElement=1,Equipment=1", "old", "new", "to", "", "I", "U", "D", "i",
                      "u", "d", "-128", "1.5", "32768", "true", "A=1;B=1", "\"A,B=1\"", "reservedBy"}};
}

std::vector<Minimum> Fuzz::minimums()
{
    return {{"MOAccessReport readable", 6, 300}, {"MOAccessReport unreadable", 3, 300}, {"synchronised", 2, 300}};
}

void Fuzz::finish() {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const Bytes body(data + 1, data + size);
    const RawMessage raw{TAMO_MOAccessReport::id, 14, 0, 0, body, nullptr};
    TAMO_MOAccessReport report;
    const bool readable = report.deserialize(&raw);
    FuzzedService::prepareProcess();
    const SameDescriptors descriptors;
    FuzzedService service;
    if ((data[0] & 1) != 0) {
        TAMO_EnableAttrSync enable;
        service.give(enable.id, enable.serialize(), 100);
        reached("synchronised");
    }
    subscribe(service);
    const std::string before = service.committed(untouchable);
    service.give(raw.id, body, 14);
    require(service.committed(untouchable) == before, "a report is not written to the tree");
    service.checkAfterwards();
    checkTold(service, readable ? report.objects : std::vector<ReportedObject>());
    return 0;
}
