#pragma once

#include "platform/messages/IPCData.h"
#include "platform/messages/Message.h"
#include "platform/messages/Requests.h"

#include <string>
#include <utility>
#include <vector>

/// The answers of the database service. Constructors take their values in the order in which the
/// handlers state them; on the wire the transaction id comes first. Every answer also has a default
/// constructor, for the receiving side.

namespace TAMO::Messages {

/// Success flag and transaction id.
class ResultAnswer : public TransactionMessage {
public:
    ResultAnswer() = default;
    ResultAnswer(bool result, std::int32_t transactionId) : TransactionMessage(transactionId), success(result) {}
    bool success = false;

protected:
    void describeRest(FieldList& fields) override { fields(success); }
};

template <class Request>
using ResultAnswerTo = Numbered<answerTo(Request::id), ResultAnswer>;

using TAMO_DBInsertRsp = ResultAnswerTo<TAMO_DBInsert>;
using TAMO_DBInsertToCommonDbRsp = ResultAnswerTo<TAMO_DBInsertToCommonDb>;
using TAMO_DBUpdateRsp = ResultAnswerTo<TAMO_DBUpdate>;
using TAMO_DBDeleteRsp = ResultAnswerTo<TAMO_DBDelete>;
using TAMO_DBCreateObjectRsp = ResultAnswerTo<TAMO_DBCreateObject>;
using TAMO_DBSetAttributeValueRsp = ResultAnswerTo<TAMO_DBSetAttributeValue>;
using TAMO_deleteAttributeRsp = ResultAnswerTo<TAMO_deleteAttribute>;
using TAMO_DBTransactionRsp = ResultAnswerTo<TAMO_DBTransaction>;
using TAMO_DBPresenceRsp = ResultAnswerTo<TAMO_DBPresence>;
using TAMO_DBCleanDatabaseRsp = ResultAnswerTo<TAMO_DBCleanDatabase>;
using TAMO_DBShutdownDbRsp = ResultAnswerTo<TAMO_DBShutdownDb>;
using TAMO_DBOrderReadyRsp = ResultAnswerTo<TAMO_DBOrderReady>;
using TAMO_EnableAttrSyncRsp = ResultAnswerTo<TAMO_EnableAttrSync>;
using TAMO_DBUnRegToAllNotifsRsp = ResultAnswerTo<TAMO_DBUnRegToAllNotifs>;

class TAMO_DBUnRegToNotifRsp : public Numbered<answerTo(TAMO_DBUnRegToNotif::id), ResultAnswer> {
public:
    TAMO_DBUnRegToNotifRsp() = default;
    TAMO_DBUnRegToNotifRsp(bool result, std::int32_t transactionId, std::int32_t ofTicket)
        : Numbered(result, transactionId), ticket(ofTicket)
    {}
    std::int32_t ticket = -1;

protected:
    void describeRest(FieldList& fields) override
    {
        ResultAnswer::describeRest(fields);
        fields(ticket);
    }
};

class TAMO_DBRegToNotifRsp : public Numbered<answerTo(TAMO_DBRegToNotif::id)> {
public:
    TAMO_DBRegToNotifRsp() = default;
    TAMO_DBRegToNotifRsp(std::int32_t ofTicket, std::int32_t transactionId) : Numbered(transactionId), ticket(ofTicket)
    {}
    std::int32_t ticket = -1;

protected:
    void describeRest(FieldList& fields) override { fields(ticket); }
};

class TAMO_DBStoreBrMBackupRsp : public Numbered<answerTo(TAMO_DBStoreBrMBackup::id), ResultAnswer> {
public:
    TAMO_DBStoreBrMBackupRsp() = default;
    TAMO_DBStoreBrMBackupRsp(std::int32_t transactionId, bool result) : Numbered(result, transactionId) {}
};

/// Lists the fields of a data block.
void describeData(FieldList& fields, IPCData::IPCdataRsp& data);

/// One serialised object or attribute.
class ItemAnswer : public TransactionMessage {
public:
    ItemAnswer() = default;
    ItemAnswer(IPCData::IPCdataRsp block, std::int32_t itemLength, std::int32_t itemUncompressedSize,
               std::int32_t transactionId)
        : TransactionMessage(transactionId),
          data(std::move(block)),
          length(itemLength),
          uncompressedSize(itemUncompressedSize)
    {}
    IPCData::IPCdataRsp data;
    std::int32_t length = 0;           ///< bytes of the item in `data`
    std::int32_t uncompressedSize = 0; ///< 0 for an item that was not compressed

protected:
    void describeRest(FieldList& fields) override
    {
        describeData(fields, data);
        fields(length, uncompressedSize);
    }
};

using TAMO_DBFetchRsp = Numbered<answerTo(TAMO_DBFetch::id), ItemAnswer>;
using TAMO_DBFetchAttrRsp = Numbered<answerTo(TAMO_DBFetchAttr::id), ItemAnswer>;

/// Several serialised objects back to back, with a table entry for each.
class ListAnswer : public TransactionMessage {
public:
    ListAnswer() = default;
    ListAnswer(std::int32_t transactionId, std::int32_t objectCount, IPCData::IPCdataRsp block,
               std::vector<std::int32_t> itemLengths, std::vector<std::int32_t> itemUncompressedSizes)
        : TransactionMessage(transactionId),
          count(objectCount),
          data(std::move(block)),
          lengths(std::move(itemLengths)),
          uncompressedSizes(std::move(itemUncompressedSizes))
    {}
    std::int32_t count = 0;
    IPCData::IPCdataRsp data;
    std::vector<std::int32_t> lengths;
    std::vector<std::int32_t> uncompressedSizes;

protected:
    void describeRest(FieldList& fields) override
    {
        fields(count);
        describeData(fields, data);
        fields(lengths, uncompressedSizes);
    }
};

using TAMO_DBFetchAllChildrenRsp = Numbered<answerTo(TAMO_DBFetchAllChildren::id), ListAnswer>;
using TAMO_DBFetchMOClassRsp = Numbered<answerTo(TAMO_DBFetchMOClass::id), ListAnswer>;

class TAMO_DBFetchMOClassWithParentRsp : public Numbered<answerTo(TAMO_DBFetchMOClassWithParent::id)> {
public:
    TAMO_DBFetchMOClassWithParentRsp() = default;
    TAMO_DBFetchMOClassWithParentRsp(std::vector<std::string> instanceList, std::int32_t sizeOfAll,
                                     std::int32_t transactionId, std::int32_t entryCount)
        : Numbered(transactionId), instances(std::move(instanceList)), totalSize(sizeOfAll), count(entryCount)
    {}
    std::vector<std::string> instances;
    std::int32_t totalSize = 0; ///< sum over the entries of length plus 1
    std::int32_t count = 0;

protected:
    void describeRest(FieldList& fields) override { fields(instances, totalSize, count); }
};

/// An (empty) data block and the result flag.
class DataResultAnswer : public TransactionMessage {
public:
    DataResultAnswer() = default;
    DataResultAnswer(IPCData::IPCdataRsp block, std::int32_t transactionId, bool result)
        : TransactionMessage(transactionId), data(std::move(block)), success(result)
    {}
    IPCData::IPCdataRsp data;
    bool success = false;

protected:
    void describeRest(FieldList& fields) override
    {
        describeData(fields, data);
        fields(success);
    }
};

using TAMO_DBStorePersistentDumpRsp = Numbered<answerTo(TAMO_DBStorePersistentDump::id), DataResultAnswer>;
using TAMO_DBLoadAlternateStorageRsp = Numbered<answerTo(TAMO_DBLoadAlternateStorage::id), DataResultAnswer>;

class TAMO_getWholeDnRsp : public Numbered<answerTo(TAMO_getWholeDn::id)> {
public:
    TAMO_getWholeDnRsp() = default;
    TAMO_getWholeDnRsp(std::string dn, std::int32_t dnLength, std::int32_t transactionId)
        : Numbered(transactionId), wholeDn(std::move(dn)), length(dnLength)
    {}
    std::string wholeDn;
    std::int32_t length = 0;

protected:
    void describeRest(FieldList& fields) override { fields(wholeDn, length); }
};

} // namespace TAMO::Messages
