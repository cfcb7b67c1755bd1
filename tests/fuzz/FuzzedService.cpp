// What holds for the request service whatever it is sent.

#include "tests/fuzz/FuzzedService.h"

#include "tests/support/PrivateTmp.h"

#include "change/TransactionMngr.h"
#include "platform/messages/Diagnostics.h"
#include "platform/moaccess/MOTransactionNotify.h"
#include "store/FileLocations.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

using namespace TAMO::Messages;
using Fuzz::reached;
using Fuzz::require;

namespace {

constexpr std::int32_t secMain = 13;
constexpr std::int32_t senders[] = {100, 8, secMain}; // the third is not connected

constexpr const char* templateFile = "<m><mo><dn>ManagedElement=1,T=1</dn><attribute><name>a</name><type>int</type>"
                                     "<value>1</value></attribute><attribute><name>s</name><type>struct</type>"
                                     "<name>N:S</name><attribute><name>x</name><type>string</type><value>y</value>"
                                     "</attribute></attribute></mo></m>";
constexpr const char* syncFile = "<AttrSyncPairs><syncPair><attrSyncPair><attr1><fdn>ManagedElement=1</fdn><attrName>"
                                 "old</attrName></attr1><attr2><fdn>ManagedElement=1</fdn><attrName>new</attrName>"
                                 "</attr2></attrSyncPair></syncPair></AttrSyncPairs>";

template <class Request>
bool readableAs(const RawMessage& raw)
{
    Request request;
    if (!request.deserialize(&raw))
        return false;
    RawMessage again{raw.id, raw.sender, 0, 0, request.serialize(), nullptr};
    Request same;
    require(same.deserialize(&again) && same.serialize() == again.body, "what was read encodes to the same bytes");
    return true;
}

template <class Answer>
bool succeededAs(const RawMessage& raw)
{
    Answer answer;
    require(answer.deserialize(&raw), "an answer can be read");
    if constexpr (requires { answer.success; })
        return answer.success;
    else if constexpr (requires { answer.data; })
        return answer.data.result == 0;
    else if constexpr (requires { answer.instances; })
        return answer.count >= 0;
    else if constexpr (requires { answer.wholeDn; })
        return !answer.wholeDn.empty();
    else if constexpr (requires { answer.total; })
        return answer.total >= 0;
    else
        return answer.ticket >= 0;
}

template <class Request, class Answer>
FuzzedService::Kind kind(const char* name)
{
    return {Request::id, name, Answer::id, readableAs<Request>, succeededAs<Answer>};
}

template <class Message>
FuzzedService::Kind unanswered(const char* name)
{
    return {Message::id, name, 0, readableAs<Message>, nullptr};
}

/// The transaction id that leads a body, found without the service's own reader.
std::optional<std::int32_t> leadingId(const Bytes& body)
{
    if (body.empty())
        return std::nullopt;
    std::size_t at = (body[0] & 0xF0) == 0x90 ? 1 : body[0] == 0xDC ? 3 : body[0] == 0xDD ? 5 : body.size();
    if (at >= body.size())
        return std::nullopt;
    const std::uint8_t head = body[at++];
    if (head < 0x80 || head >= 0xE0)
        return static_cast<std::int8_t>(head);
    if (head < 0xCC || head > 0xD3)
        return std::nullopt;
    const std::size_t width = std::size_t{1} << (head & 3);
    if (body.size() - at < width)
        return std::nullopt;
    const bool isSigned = head >= 0xD0;
    std::uint64_t number = isSigned && body[at] >= 0x80 ? ~std::uint64_t{0} : 0;
    for (std::size_t i = 0; i < width; ++i)
        number = number << 8 | body[at + i];
    const auto value = static_cast<std::int64_t>(number);
    if (value < INT32_MIN || value > INT32_MAX)
        return std::nullopt;
    return static_cast<std::int32_t>(value);
}

} // namespace

/// Storing waits for the media of the whole machine; nothing of that is under test.
extern "C" void sync() noexcept {}

const std::vector<FuzzedService::Kind>& FuzzedService::kinds()
{
    static const std::vector<Kind> all{
        kind<TAMO_ListClients, TAMO_ListClientsRsp>("ListClients"),
        kind<TAMO_ListSubscriptions, TAMO_ListSubscriptionsRsp>("ListSubscriptions"),
        unanswered<TAMO_FaultNotification>("FaultNotification"),
        kind<TAMO_DBInsert, TAMO_DBInsertRsp>("Insert"),
        kind<TAMO_DBInsertToCommonDb, TAMO_DBInsertToCommonDbRsp>("InsertToCommonDb"),
        kind<TAMO_DBFetch, TAMO_DBFetchRsp>("Fetch"),
        kind<TAMO_DBFetchAllChildren, TAMO_DBFetchAllChildrenRsp>("FetchAllChildren"),
        kind<TAMO_DBFetchMOClass, TAMO_DBFetchMOClassRsp>("FetchMOClass"),
        kind<TAMO_DBFetchMOClassWithParent, TAMO_DBFetchMOClassWithParentRsp>("FetchMOClassWithParent"),
        kind<TAMO_DBOrderReady, TAMO_DBOrderReadyRsp>("OrderReady"),
        kind<TAMO_DBRegToNotif, TAMO_DBRegToNotifRsp>("RegToNotif"),
        kind<TAMO_DBUpdate, TAMO_DBUpdateRsp>("Update"),
        kind<TAMO_DBUnRegToNotif, TAMO_DBUnRegToNotifRsp>("UnRegToNotif"),
        kind<TAMO_DBDelete, TAMO_DBDeleteRsp>("Delete"),
        kind<TAMO_DBTransaction, TAMO_DBTransactionRsp>("Transaction"),
        kind<TAMO_DBCreateObject, TAMO_DBCreateObjectRsp>("CreateObject"),
        kind<TAMO_DBSetAttributeValues, TAMO_DBSetAttributeValueRsp>("SetAttributeValues"),
        kind<TAMO_DBSetAttributeValue, TAMO_DBSetAttributeValueRsp>("SetAttributeValue"),
        kind<TAMO_DBStorePersistentDump, TAMO_DBStorePersistentDumpRsp>("StorePersistentDump"),
        kind<TAMO_DBPresence, TAMO_DBPresenceRsp>("Presence"),
        kind<TAMO_DBShutdownDb, TAMO_DBShutdownDbRsp>("ShutdownDb"),
        kind<TAMO_DBCleanDatabase, TAMO_DBCleanDatabaseRsp>("CleanDatabase"),
        kind<TAMO_getWholeDn, TAMO_getWholeDnRsp>("getWholeDn"),
        kind<TAMO_deleteAttribute, TAMO_deleteAttributeRsp>("deleteAttribute"),
        kind<TAMO_DBLoadAlternateStorage, TAMO_DBLoadAlternateStorageRsp>("LoadAlternateStorage"),
        unanswered<TAMO_MOAccessReport>("MOAccessReport"),
        kind<TAMO_DBFetchAttr, TAMO_DBFetchAttrRsp>("FetchAttr"),
        kind<TAMO_EnableAttrSync, TAMO_EnableAttrSyncRsp>("EnableAttrSync"),
        kind<TAMO_DBUnRegToAllNotifs, TAMO_DBUnRegToAllNotifsRsp>("UnRegToAllNotifs"),
        kind<TAMO_DBStoreBrMBackup, TAMO_DBStoreBrMBackupRsp>("StoreBrMBackup"),
        unanswered<TAMO_DBIntegrityCheck>("IntegrityCheck"),
        unanswered<TAMO_MiddlewareStatus>("MiddlewareStatus"),
    };
    return all;
}

void FuzzedService::prepareProcess()
{
    static const bool once = [] {
        testing::GTEST_FLAG(break_on_failure) = true; // the fixture's own expectations end the process, too
        setenv("TAMO_LOG_LEVEL", "debug", 1);         // the lines are formatted, from what the input holds
        static const bool ownTmp = enterPrivateTmp();
        static const StoringTurn turn; // where /tmp is everybody's
        return ownTmp;
    }();
    static_cast<void>(once);
}

FuzzedService::FuzzedService()
{
    std::filesystem::current_path(path(""));
    std::ofstream("template.xml") << templateFile;
    std::ofstream("deprecated_attribute_mapping.xml") << syncFile;
    setenv("DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH", path("").c_str(), 1);
    Attribute parked = text("userLabel", "parked");
    parked.slot = 1;
    Attribute persistent = text("kept", "a");
    persistent.persistent = true;
    require(insert("OAM", {attribute("AI_phase", std::int32_t{4})}, false) &&
                insert("ManagedElement=1", {text("userLabel", "live"), persistent, text("old", "1")}) &&
                insert("ManagedElement=1", {parked}) &&
                insert("ManagedElement=1,Equipment=1", {attribute("n", std::int32_t{-5})}) &&
                insert("ManagedElement=1,Equipment=1,RbsUnit=1", {reference("to", "ManagedElement=1")}) &&
                insert("ManagedElement=1,Equipment=1,RbsUnit=1,WifiModule=1"),
            "the tree that an input starts from");
}

FuzzedService::~FuzzedService()
{
    for (const Expected& each : m_expected) // the registry outlives the service
        TransactionMngr::endTransaction(DatabaseWrapper::generateTransId(each.sender, each.transId));
    std::filesystem::current_path("/");
}

const std::string FuzzedService::recordSeparator = "\xC1\xC1"; // no MessagePack value begins with it

std::string FuzzedService::record(const Message& message, std::int32_t sender)
{
    const Bytes body = message.serialize();
    const auto at = std::ranges::find(kinds(), message.messageId(), &Kind::id) - kinds().begin();
    const auto from = std::ranges::find(senders, sender) - std::begin(senders);
    std::string bytes{static_cast<char>(at), static_cast<char>(from)};
    bytes.append(body.begin(), body.end());
    require(bytes.find(recordSeparator) == std::string::npos, "a seed without the separator");
    return bytes;
}

/// A record is a byte for the kind of message, one for the sender, and the body.
void FuzzedService::giveRecords(const std::string& input)
{
    constexpr int most = 40;
    std::size_t begin = 0;
    for (int count = 0; count < most && begin <= input.size(); ++count) {
        const std::size_t end = std::min(input.find(recordSeparator, begin), input.size());
        const std::string bytes = input.substr(begin, end - begin);
        begin = end + recordSeparator.size();
        if (bytes.size() < 2)
            continue;
        const auto at = static_cast<std::uint8_t>(bytes[0]);
        const std::uint32_t id = at < kinds().size() ? kinds()[at].id : at;
        give(id, Bytes(bytes.begin() + 2, bytes.end()),
             senders[static_cast<std::uint8_t>(bytes[1]) % std::size(senders)]);
    }
}

void FuzzedService::give(std::uint32_t id, Bytes body, std::int32_t sender)
{
    const auto found = std::ranges::find(kinds(), id, &Kind::id);
    const RawMessage raw{id, sender, 0, 0, body, nullptr};
    const bool readable = found != kinds().end() && found->readable(raw);
    sqlite3* const before = store().runtime() ? TempStore::handle() : nullptr;
    const auto changesBefore = before ? sqlite3_total_changes64(before) : 0;
    handle(id, std::move(body), sender);
    require(store().runtime() && sqlite3_get_autocommit(TempStore::handle()) != 0, "no transaction stays open");
    if (!readable)
        require(TempStore::handle() == before && sqlite3_total_changes64(before) == changesBefore,
                "a message that cannot be read changes nothing");
    if (found == kinds().end())
        return reached("unknown message");
    reached(std::string(found->name) + (readable ? " readable" : " unreadable"));
    m_shutDown = m_shutDown || (id == TAMO_DBShutdownDb::id && readable);
    if (found->answerId != 0)
        expectAnswer(*found, raw, readable);
}

void FuzzedService::expectAnswer(const Kind& kind, const RawMessage& raw, bool readable)
{
    const auto transId = leadingId(raw.body);
    require(transId || !readable, "a request that can be read begins with its transaction id");
    const bool ignored = kind.id == TAMO_DBSetAttributeValues::id && raw.sender != 8;
    if (transId)
        m_expected.push_back({ignored ? nullptr : &kind, *transId, raw.sender, readable});
}

void FuzzedService::expireHold()
{
    DatabaseWrapper_StateMachine::EventWithParams_evAMWMessageHandlerEvent event(0);
    require(service.dispatch(event), "the end of a hold is handled");
}

void FuzzedService::checkAfterwards()
{
    checkAnswers(client);
    checkAnswers(autointegration);
    checkFiles();
    checkThatItServes();
}

void FuzzedService::checkAnswers(Service& of)
{
    auto messages = of.arrived();
    std::erase_if(messages, [this](const auto& each) {
        if (each->id != TAMO_DBNotification::id)
            return false;
        require(notifications.emplace_back().deserialize(each.get()), "a notification can be read");
        return true;
    });
    auto answer = messages.begin();
    for (const Expected& expected : m_expected) {
        if (expected.sender != of.id() || !expected.kind)
            continue;
        const std::string name = expected.kind->name;
        require(answer != messages.end(), "an answer to " + name);
        require((*answer)->id == expected.kind->answerId && leadingId((*answer)->body) == expected.transId,
                "the answers come in order, here that to " + name);
        const bool succeeded = expected.kind->succeeded(**answer);
        require(expected.readable || !succeeded, "what cannot be read does not succeed: " + name);
        if (expected.readable)
            reached(name + (succeeded ? " succeeded" : " refused"));
        ++answer;
    }
    require(answer == messages.end(), "no message beyond the answers");
}

void FuzzedService::checkFiles() const
{
    const std::string file = path("runtime/pRBSdb");
    require(queryFile(file, "PRAGMA integrity_check") == "ok", "the file is sound");
    require(queryFile(file, "select count(*) from Attribute where belongsTo not in (select id from DBObject)") == "0",
            "every attribute belongs to an object");
    require(queryFile(file,
                      "select count(*) from DBObject where id <> 0 and parent not in (select id from DBObject)") == "0",
            "every object has a parent");
}

void FuzzedService::checkThatItServes()
{
    const std::int32_t id = INT32_MAX;
    TransactionMngr::endTransaction(DatabaseWrapper::generateTransId(client.id(), id));
    ask<TAMO_DBUnRegToAllNotifsRsp>(TAMO_DBUnRegToAllNotifs());
    static_cast<void>(client.arrived());
    const auto probe = [&](auto request) {
        request.transId = id;
        handle(request.id, request.serialize(), client.id());
    };
    probe(carrying<TAMO_DBInsert>(container("FuzzProbe=1", {text("a", "value")}), operationInsert));
    const auto inserted = client.next<TAMO_DBInsertRsp>();
    require(inserted && inserted->success != m_shutDown, "an object can be inserted unless the service was shut down");
    TAMO_DBFetch request;
    request.dn = "FuzzProbe=1";
    probe(request);
    const auto fetched = client.next<TAMO_DBFetchRsp>();
    require(fetched.has_value(), "a fetch is answered");
    const auto object =
        DBObject::DeSerializeDatafromDB(fetched->data.data.data(), fetched->length, fetched->uncompressedSize);
    const Attribute* const held = object ? object->getAttribute("a") : nullptr;
    require((held && held->ToStr() == "value") != m_shutDown, "the object can be fetched");
}
