// Random requests of two clients over a tree so small that they meet all the time, each answer, each
// notification and the stored tree compared with the model. A failure prints its seed and the last
// requests; TAMO_MODEL_SEED repeats it, TAMO_MODEL_REQUESTS sets how long to go on.

#include "tests/requests/Model.h"
#include "tests/requests/RequestTest.h"

#include "change/TransactionMngr.h"
#include "platform/messages/Notifications.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <random>
#include <set>

using namespace TAMO::Messages;

namespace {

constexpr const char* objectNames[] = {"Top=1",
                                       "Top=2",
                                       "Solo=1",
                                       "EventType=1",
                                       "Top=1,Mid=1",
                                       "Top=1,Mid=2",
                                       "Top=2,Mid=1",
                                       "EventType=1,Mid=3",
                                       "Top=1,Mid=1,Leaf=1",
                                       "Top=2,Mid=1,Leaf=1"};
constexpr const char* attributeNames[] = {"a", "b", "r", "reservedBy"};
constexpr const char* classes[] = {"Top", "Mid", "Leaf", "EventType", "M", "Solo"};

std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise)
{
    const char* const text = std::getenv(variable);
    return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

class RandomRequests : public RequestTest {
protected:
    using Asker = Model::Asker;
    static constexpr std::int32_t ownIds = 2; ///< ids that transactions use

    ~RandomRequests() override
    {
        for (const Service* each : clients) // the registry outlives the test
            for (std::int32_t id = 1; id <= ownIds; ++id)
                TransactionMngr::endTransaction(DatabaseWrapper::generateTransId(each->id(), id));
    }

    std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); }
    bool chance(std::uint32_t percent) { return below(100) < percent; }
    template <class List>
    auto pick(const List& list)
    {
        return *std::next(std::begin(list), below(static_cast<std::uint32_t>(std::size(list))));
    }

    static std::int32_t instanceOf(const std::string& dn) { return dn == "Solo=1" ? 2 : 1; }
    static bool isOfModel(const std::string& dn) { return !dn.starts_with("EventType") && dn != "Top=2,Mid=1,Leaf=1"; }

    std::string someName() { return pick(objectNames); }
    /// Mostly one that is there when the asker's transaction is through and that was there before, often
    /// the one written last.
    std::string likelyName(Asker by)
    {
        if (chance(5))
            return someName();
        const ModelTree seen = model.outlook(by);
        std::vector<std::string> names;
        for (const auto& [name, object] : seen.objects)
            if ((model.tree.objects.contains(name) || chance(30)) && !(inTransaction && strays(name)))
                names.push_back(name);
        if (names.empty())
            return someName();
        return chance(30) && std::ranges::find(names, lastWritten) != names.end() ? lastWritten : pick(names);
    }
    /// One that landed at the top for want of its parent. By the time of a commit it may be gone, and its
    /// pair may mean any of several objects.
    static bool strays(const std::string& name)
    {
        return std::ranges::find(objectNames, name) == std::end(objectNames);
    }
    std::int32_t likelyInstance(const std::string& dn) { return chance(97) ? instanceOf(dn) : 3; }

    std::string someTargets()
    {
        std::string targets = chance(20) ? "" : someName();
        return targets.empty() || chance(60) ? targets : targets + (chance(50) ? ";" : ";;") + someName();
    }
    Value valueFor(const std::string& name)
    {
        if (name == "r")
            return someTargets();
        if (name == "reservedBy")
            return chance(80) ? std::string() : someName();
        switch (below(4)) {
        case 0:
            return std::string(1, static_cast<char>('x' + below(2)));
        case 1:
            return chance(50);
        default:
            return static_cast<std::int32_t>(below(3));
        }
    }
    Attribute someAttribute(const std::string& name)
    {
        static constexpr std::int32_t types[] = {0, 3, 9, 10, 12, 14, 99};
        const std::int32_t type = name == "r" ? (chance(80) ? 11 : 31) : name == "reservedBy" ? 9 : pick(types);
        return {chance(15), name, valueFor(name), 0, chance(15), type, chance(90), false};
    }
    DBObject someObject(const std::string& dn)
    {
        DBObject object = container(dn, {}, isOfModel(dn), instanceOf(dn));
        object.system = chance(10);
        for (const char* const name : attributeNames)
            if (chance(name == std::string("r") ? 12 : 40))
                object.addAttribute(someAttribute(name));
        // Values are read when an operation has written all its rows: of a list that comes along and is
        // added to at once the first value is never told. The model does not wait like that.
        if (const Attribute* const r = object.getAttribute("r"); r && r->ToStr().find(dn) != std::string::npos)
            object.attributes.erase("reservedBy");
        return object;
    }

    /// The message as a text that compares with the model's.
    std::string textOf(const RawMessage& raw)
    {
        switch (raw.id) {
        case TAMO_DBNotification::id:
            return textOf(read<TAMO_DBNotification>(raw));
        case TAMO_DBFetchRsp::id:
            return textOf(read<TAMO_DBFetchRsp>(raw), DBObject::DeSerializeDatafromDB);
        case TAMO_DBFetchAttrRsp::id:
            return textOf(read<TAMO_DBFetchAttrRsp>(raw), DBObject::DeSerializeAttrfromDB);
        case TAMO_DBFetchAllChildrenRsp::id:
            return textOf(read<TAMO_DBFetchAllChildrenRsp>(raw));
        case TAMO_DBFetchMOClassRsp::id:
            return textOf(read<TAMO_DBFetchMOClassRsp>(raw));
        case TAMO_DBFetchMOClassWithParentRsp::id:
            return textOf(read<TAMO_DBFetchMOClassWithParentRsp>(raw));
        case TAMO_getWholeDnRsp::id: {
            const auto message = read<TAMO_getWholeDnRsp>(raw);
            EXPECT_EQ(static_cast<std::size_t>(message.length), message.wholeDn.size());
            return numbered(message) + message.wholeDn;
        }
        case TAMO_DBRegToNotifRsp::id: {
            const auto message = read<TAMO_DBRegToNotifRsp>(raw);
            return numbered(message) + "ticket " + std::to_string(message.ticket);
        }
        case TAMO_DBUnRegToNotifRsp::id: {
            const auto message = read<TAMO_DBUnRegToNotifRsp>(raw);
            return numbered(message) + (message.success ? "yes, ticket " : "no, ticket ") +
                   std::to_string(message.ticket);
        }
        default: { // a result, as every write has it
            const auto message = read<TAMO_DBInsertRsp>(raw);
            return numbered(message) + (message.success ? "yes" : "no");
        }
        }
    }
    template <class Message>
    static Message read(const RawMessage& raw)
    {
        Message message;
        EXPECT_TRUE(message.deserialize(&raw));
        return message;
    }
    static std::string numbered(const TransactionMessage& message)
    {
        return "#" + std::to_string(message.transId) + " ";
    }
    /// An attribute marked for deletion is a number in a list's place; and a stray object at the top
    /// says nothing of its parent, so that its row id would stand for any object of that pair.
    static bool isWorthKeeping(const DBObject& object)
    {
        return !(object.parentDn.empty() && strays(object.dn)) &&
               std::ranges::none_of(object.attributes, [](const auto& each) { return each.second.deleted; });
    }
    template <class Message, class Rebuild>
    std::string textOf(const Message& message, Rebuild rebuild)
    {
        const auto item = rebuild(message.data.data.data(), message.length, message.uncompressedSize);
        EXPECT_EQ(message.data.dataValid, item != nullptr);
        EXPECT_EQ(message.data.result, item ? 0 : 1);
        if constexpr (std::is_same_v<Message, TAMO_DBFetchRsp>)
            if (item && chance(30) && isWorthKeeping(*item))
                kept.push_back(*item);
        return numbered(message) + (item ? describe(*item) : "none");
    }
    std::string textOf(const ListAnswer& message)
    {
        EXPECT_EQ(message.data.result, 0);
        EXPECT_EQ(message.data.dataValid, message.count > 0);
        std::set<std::string> sorted; // the order of rows is nobody's promise
        const std::uint8_t* at = message.data.data.data();
        for (std::size_t i = 0; i < message.lengths.size(); at += message.lengths[i++]) {
            const auto item = DBObject::DeSerializeDatafromDB(at, message.lengths[i], message.uncompressedSizes[i]);
            sorted.insert(item ? describe(*item) : "unreadable");
        }
        EXPECT_EQ(sorted.size(), static_cast<std::size_t>(message.count));
        std::string text = numbered(message);
        for (const std::string& each : sorted)
            text += each;
        return text;
    }
    std::string textOf(TAMO_DBFetchMOClassWithParentRsp message)
    {
        if (!inTransaction) // rows come as they like
            std::ranges::sort(message.instances);
        std::string text;
        for (const std::string& each : message.instances)
            text += each + ";";
        EXPECT_EQ(static_cast<std::size_t>(message.totalSize), text.size());
        EXPECT_EQ(static_cast<std::size_t>(message.count), message.instances.size());
        return numbered(message) + text;
    }
    static std::string textOf(const TAMO_DBNotification& message)
    {
        std::string text = std::to_string(message.ticket) + ":";
        const std::string operation = std::to_string(message.objectOperation);
        const std::string names = " " + message.dn + " " + (message.wholeDn.empty() ? message.dn : message.wholeDn);
        EXPECT_EQ(static_cast<std::size_t>(message.attributeListLength), message.attributeList.size());
        if (message.attributeName != "notifsForAll") {
            EXPECT_EQ(message.attributeOperation, message.objectOperation);
            EXPECT_TRUE(message.attributeList.size() == 1 && message.attributeList.front().name == "empty");
            return text + operation + names + " " +
                   (message.attributeName.empty() ? ""
                                                  : message.attributeName + "=" + valueText(message.value) + ":" +
                                                        std::to_string(message.valueType));
        }
        text += "{" + operation + "/" + std::to_string(message.attributeOperation) + names + ": ";
        for (const attrNameValuePair& pair : message.attributeList)
            text += pair.name + "=" + valueText(pair.value) + ":" + std::to_string(pair.valueType) +
                    (pair.hidden ? "h" : "") + "(" + std::to_string(pair.operation) + ") ";
        return text + "}";
    }

    /// Hands the request over and compares what each client gets with what the model said before.
    template <class Request>
    void send(Asker by, Request request, const std::string& words, bool cut = false)
    {
        request.transId = by.transId;
        requests.push_back(std::to_string(by.node) + " #" + std::to_string(by.transId) + " " + words);
        if (requests.size() > 40)
            requests.pop_front();
        Bytes body = request.serialize();
        if (cut)
            body.resize(body.size() - 1);
        handle(Request::id, std::move(body), by.node);
        for (Service* const each : clients)
            compare(*each);
    }
    void compare(Service& of)
    {
        auto& expected = model.expected[of.id()];
        for (; !expected.empty() && !HasFailure(); expected.pop_front()) {
            const auto raw = of.next();
            ++heard[raw ? raw->id : 0];
            ASSERT_EQ(raw ? textOf(*raw) : "nothing", expected.front()) << "for " << of.id();
        }
    }
    void compareStore()
    {
        for (Service* const each : clients)
            EXPECT_TRUE(each->gotNothing()) << each->id();
        const char* const sql =
            "with recursive tree(id, whole) as (select id, dn from DBObject where parent = 0 and id <> 0 union all "
            "select o.id, whole||','||dn from DBObject o join tree on o.parent = tree.id) "
            "select whole||'|'||MOInstance||isMOMObject||system||ifnull((select group_concat(text, '') from "
            "(select ' '||name||'='||value||':'||value_type||hidden||persistent as text from Attribute "
            "where belongsTo = tree.id order by name)), '') from tree join DBObject using (id) order by whole";
        EXPECT_EQ(committed(sql), model.everything());
        EXPECT_EQ(committed("select count(*) from Attribute where belongsTo not in (select id from DBObject)"), "0");
        EXPECT_TRUE(anotherConnectionCanWrite());
        log.forget();
    }

    void writeSomething(Asker by)
    {
        const bool isInsert = chance(60);
        DBObject object = someObject(isInsert ? someName() : likelyName(by));
        if (!kept.empty() && chance(20)) {
            const DBObject old = pick(kept);
            if (chance(10) || model.outlook(by).objects.contains(old.fullDn()))
                object = old;
            object.attributes.insert_or_assign("a", someAttribute("a"));
        }
        // An object whose parent is missing lands at the top: worth it now and then.
        if (isInsert && !object.parentDn.empty() && model.outlook(by).locate(object.parentDn, 1).empty() && chance(90))
            object = someObject("Top=1");
        if (isInsert && chance(inTransaction ? 1 : 3))
            object.MOInstance = 0;
        lastWritten = object.fullDn();
        if (!isInsert)
            for (auto& [name, attribute] : object.attributes)
                attribute.deleted = name.size() == 1 && name != "r" && chance(15);
        const std::int32_t operation = isInsert ? operationInsert : operationUpdate;
        const std::uint32_t flaw = below(60);
        flaw < flaws ? model.refuse(by) : model.write(by, operation, object);
        if (isInsert)
            sendObject<TAMO_DBInsert>(by, object, operation, flaw);
        else
            sendObject<TAMO_DBUpdate>(by, object, operation, flaw);
    }
    static constexpr std::uint32_t flaws = 3;
    template <class Request>
    void sendObject(Asker by, const DBObject& object, std::int32_t operation, std::uint32_t flaw)
    {
        auto request = carrying<Request>(object, flaw == 0 ? 42 : operation);
        if (flaw == 1)
            request.object.resize(request.object.size() / 2);
        const std::string words = std::string(operation == operationInsert ? "insert " : "update ") + describe(object);
        send(by, request, words + (flaw < flaws ? " flawed" : ""), flaw == 2);
    }
    void removeSomething(Asker by)
    {
        TAMO_DBDelete request;
        request.operation = chance(98) ? operationDelete : 41;
        // Most objects are referred to: a few tries for one that can go.
        for (int tries = 0; tries < 4; ++tries) {
            request.dn = likelyName(by);
            request.MOInstance = likelyInstance(request.dn);
            if (model.outlook(by).remove(request.dn, request.MOInstance))
                break;
        }
        request.operation == 41 ? model.refuse(by) : model.remove(by, request.dn, request.MOInstance);
        send(by, request, "delete " + request.dn + " " + std::to_string(request.MOInstance));
    }
    void setSomething(Asker by)
    {
        TAMO_DBSetAttributeValue request;
        request.dn = likelyName(by);
        request.MOInstance = likelyInstance(request.dn);
        request.attributeName = pick(attributeNames);
        request.value = valueFor(request.attributeName);
        model.setAttribute(by, request.dn, request.MOInstance, request.attributeName, request.value);
        send(by, request, "set " + request.dn + " " + request.attributeName + "=" + valueText(request.value));
    }
    void removeSomeAttribute(Asker by)
    {
        TAMO_deleteAttribute request;
        request.dn = likelyName(by);
        request.attributeName = pick(attributeNames);
        model.removeAttribute(by, request.dn, request.attributeName);
        send(by, request, "delete attribute " + request.dn + " " + request.attributeName);
    }
    void readSomething(Asker by)
    {
        const std::string dn = likelyName(by);
        const std::string moClass = pick(classes);
        TAMO_DBFetch fetch;
        TAMO_DBFetchAttr attribute;
        TAMO_DBFetchAllChildren children;
        TAMO_DBFetchMOClass ofClass;
        TAMO_DBFetchMOClassWithParent instances;
        TAMO_DBPresence presence;
        TAMO_getWholeDn whole;
        switch (below(8)) {
        case 0:
        case 1:
            fetch.dn = dn;
            fetch.MOInstance = likelyInstance(dn);
            model.fetch(by, dn, fetch.MOInstance);
            return send(by, fetch, "fetch " + dn);
        case 2:
            attribute.dn = dn;
            attribute.attributeName = pick(attributeNames);
            model.fetchAttribute(by, dn, attribute.attributeName);
            return send(by, attribute, "fetch attribute " + dn + " " + attribute.attributeName);
        case 3:
            children.parentDn = dn;
            children.parentMOInstance = likelyInstance(dn);
            model.fetchChildren(by, dn, children.parentMOInstance);
            return send(by, children, "children " + dn);
        case 4:
            ofClass.moClass = moClass;
            model.fetchClass(by, moClass);
            return send(by, ofClass, "class " + moClass);
        case 5:
            instances.parentDn = chance(20) ? "" : dn;
            instances.moClass = moClass;
            model.instances(by, instances.parentDn, moClass);
            return send(by, instances, "instances of " + moClass + " below " + instances.parentDn);
        case 6:
            presence.dn = dn;
            presence.MOInstance = likelyInstance(dn);
            model.presence(by, dn, presence.MOInstance);
            return send(by, presence, "presence " + dn);
        default:
            const auto split = container(dn);
            whole.dn = split.dn;
            whole.parentDn = split.parentDn;
            model.wholeDn(by, whole.dn, whole.parentDn);
            return send(by, whole, "whole DN " + dn);
        }
    }
    void transact(Asker by)
    {
        TAMO_DBTransaction request;
        static constexpr std::int32_t whenOpen[] = {26, 26, 26, 26, 26, 26, 27, 25, 99};
        static constexpr std::int32_t otherwise[] = {25, 25, 25, 25, 25, 25, 25, 26, 27, 99};
        request.action = inTransaction ? pick(whenOpen) : pick(otherwise);
        request.noNotifications = chance(15);
        model.transaction(by, request.action, request.noNotifications);
        send(by, request, "transaction " + std::to_string(request.action) + (request.noNotifications ? " quiet" : ""));
    }
    template <class Request>
    Request someKey()
    {
        Request request;
        request.notificationForAll = chance(30) ? static_cast<std::int32_t>(1 + below(4)) : 0;
        request.withAlternate = chance(30);
        const std::string name = someName();
        const std::string forms[] = {name, name.substr(name.rfind(',') + 1), pick(classes)};
        request.dn = pick(forms);
        request.MOInstance = static_cast<std::int32_t>(below(4)) - 1;
        if (chance(60))
            request.attributeName = pick(attributeNames);
        static constexpr std::int32_t operations[] = {0, 0, 18, 23, 9, -9};
        request.operation = pick(operations);
        return request;
    }
    void subscribeSomething(Asker by)
    {
        auto request = someKey<TAMO_DBRegToNotif>();
        model.subscribe(by, request);
        send(by, request, "subscribe " + wordsOf(request));
    }
    void unsubscribeSomething(Asker by)
    {
        if (chance(10)) {
            model.unsubscribeAll(by);
            return send(by, TAMO_DBUnRegToAllNotifs(), "unsubscribe all");
        }
        auto request = someKey<TAMO_DBUnRegToNotif>();
        request.ticket = chance(20) ? -1 : static_cast<std::int32_t>(below(60)) - 2;
        model.unsubscribe(by, request, request.ticket);
        send(by, request, "unsubscribe " + std::to_string(request.ticket) + " " + wordsOf(request));
    }
    static std::string wordsOf(const SubscriptionRequest& request)
    {
        return request.dn + "," + std::to_string(request.MOInstance) + "," + request.attributeName + "," +
               std::to_string(request.operation) + " all " + std::to_string(request.notificationForAll) +
               " alternate " + std::to_string(request.withAlternate);
    }

    void requestSomething(int step)
    {
        // Mostly the same client under the same id for a while, so that transactions grow long and few
        // others get in between.
        if (chance(10))
            focus = {pick(clients)->id(), static_cast<std::int32_t>(1 + below(ownIds))};
        const std::uint32_t kind = below(100);
        const bool own = (kind >= 78 && kind < 90) || chance(80);
        const Asker by = own ? focus : Asker{pick(clients)->id(), 1000 + step};
        inTransaction =
            own && TransactionMngr::getTransactionMngr(DatabaseWrapper::generateTransId(by.node, by.transId));
        if (kind < 30)
            writeSomething(by);
        else if (kind < 38)
            removeSomething(by);
        else if (kind < 48)
            setSomething(by);
        else if (kind < 54)
            removeSomeAttribute(by);
        else if (kind < 78)
            readSomething(by);
        else if (kind < 90)
            transact(by);
        else if (kind < 96)
            subscribeSomething(by);
        else
            unsubscribeSomething(by);
    }

    std::string lastRequests()
    {
        std::string text;
        for (const std::string& each : requests)
            text += each + "\n";
        return text;
    }

    Service second{path("runtime"), "second", 101};
    Service* const clients[2] = {&client, &second};
    std::mt19937_64 random;
    Model model;
    Asker focus{100, 1};        ///< who asks most for now
    std::vector<DBObject> kept; ///< fetched before; their row ids may be others' by now
    std::string lastWritten;
    std::deque<std::string> requests;
    std::map<std::uint32_t, int> heard; ///< messages by their id
    bool inTransaction = false;
};

} // namespace

TEST_F(RandomRequests, AreAnsweredAndToldAsTheModelSays)
{
    const std::uint64_t seed = numberFrom("TAMO_MODEL_SEED", std::random_device()());
    const auto count = static_cast<int>(numberFrom("TAMO_MODEL_REQUESTS", 20000));
    SCOPED_TRACE("TAMO_MODEL_SEED=" + std::to_string(seed));
    std::cout << "TAMO_MODEL_SEED=" << seed << std::endl;
    random.seed(seed);
    constexpr int interval = 500;
    for (int step = 0; step < count && !HasFailure(); ++step) {
        requestSomething(step);
        if (step % interval == interval - 1)
            compareStore();
        if (kept.size() > 8)
            kept.erase(kept.begin());
    }
    if (!HasFailure())
        compareStore();
    EXPECT_TRUE(HasFailure() || count < 1000 || heard[TAMO_DBNotification::id] > count / 10)
        << "too quiet to prove much";
    if (HasFailure())
        ADD_FAILURE() << "the last requests:\n" << lastRequests();
}
