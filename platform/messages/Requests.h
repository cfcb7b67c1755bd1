#pragma once

#include "platform/messages/Message.h"

#include <map>
#include <string>

/// The requests the database service takes. The transaction id is every request's first field; the
/// others follow in the order in which they stand here.

namespace TAMO::Messages {

/// Operation codes that a write request repeats, so that a misdirected body is noticed.
enum EOperation : std::int32_t {
    operationInsert = 0,
    operationInsertToCommonDb = 1,
    operationUpdate = 6,
    operationDelete = 7,
};

/// Actions of TAMO_DBTransaction.
enum ETransactionAction : std::int32_t { transactionStart = 25, transactionCommit = 26, transactionAbort = 27 };

/// A request that carries an object in the form of DBObject::SerializeDataforDB.
class ObjectRequest : public TransactionMessage {
public:
    std::int32_t operation = -1;
    Bytes object;
    std::int32_t uncompressedSize = 0; ///< 0 for an object that was not compressed

protected:
    void describeRest(FieldList& fields) override { fields(operation, object, uncompressedSize); }
};

using TAMO_DBInsert = Numbered<0x1007, ObjectRequest>;
using TAMO_DBInsertToCommonDb = Numbered<0x1008, ObjectRequest>;
using TAMO_DBUpdate = Numbered<0x1017, ObjectRequest>;

class TAMO_DBDelete : public Numbered<0x1021> {
public:
    std::int32_t operation = -1;
    std::string dn;
    std::int32_t MOInstance = 1;

protected:
    void describeRest(FieldList& fields) override { fields(operation, dn, MOInstance); }
};

class TAMO_DBCreateObject : public Numbered<0x1026> {
public:
    std::string templateFile; ///< path on the node
    std::string dn;
    std::int32_t MOInstance = 1;

protected:
    void describeRest(FieldList& fields) override { fields(templateFile, dn, MOInstance); }
};

class TAMO_DBSetAttributeValue : public Numbered<0x1029> {
public:
    std::string dn;
    std::string attributeName;
    std::int32_t MOInstance = 1;
    Value value;

protected:
    void describeRest(FieldList& fields) override { fields(dn, attributeName, MOInstance, value); }
};

/// Two maps with the same keys: where each attribute lives, and its new value.
struct AttributeContainer {
    std::map<std::string, std::string> dnAttrNameMap; ///< attribute name to DN
    std::map<std::string, Value> attributes;          ///< attribute name to value
};

class TAMO_DBSetAttributeValues : public Numbered<0x1028> {
public:
    AttributeContainer container;

protected:
    void describeRest(FieldList& fields) override { fields(container.dnAttrNameMap, container.attributes); }
};

class TAMO_deleteAttribute : public Numbered<0x104C> {
public:
    std::string dn;
    std::string attributeName;

protected:
    void describeRest(FieldList& fields) override { fields(dn, attributeName); }
};

class TAMO_DBFetch : public Numbered<0x1009> {
public:
    std::string dn;
    std::int32_t MOInstance = 1;

protected:
    void describeRest(FieldList& fields) override { fields(dn, MOInstance); }
};

class TAMO_DBFetchAttr : public Numbered<0x2006> {
public:
    std::string dn;
    std::string attributeName;

protected:
    void describeRest(FieldList& fields) override { fields(dn, attributeName); }
};

class TAMO_DBFetchAllChildren : public Numbered<0x100A> {
public:
    std::string parentDn;
    std::int32_t parentMOInstance = 1;

protected:
    void describeRest(FieldList& fields) override { fields(parentDn, parentMOInstance); }
};

class TAMO_DBFetchMOClass : public Numbered<0x100B> {
public:
    std::string moClass;

protected:
    void describeRest(FieldList& fields) override { fields(moClass); }
};

class TAMO_DBFetchMOClassWithParent : public Numbered<0x100C> {
public:
    std::string parentDn;
    std::string moClass;

protected:
    void describeRest(FieldList& fields) override { fields(parentDn, moClass); }
};

class TAMO_DBPresence : public Numbered<0x102D> {
public:
    std::string dn;
    std::int32_t MOInstance = 1;

protected:
    void describeRest(FieldList& fields) override { fields(dn, MOInstance); }
};

class TAMO_getWholeDn : public Numbered<0x104A> {
public:
    std::string dn;
    std::string parentDn;

protected:
    void describeRest(FieldList& fields) override { fields(dn, parentDn); }
};

class TAMO_DBTransaction : public Numbered<0x1023> {
public:
    std::int32_t action = 0; ///< an ETransactionAction
    bool noNotifications = false;

protected:
    void describeRest(FieldList& fields) override { fields(action, noNotifications); }
};

/// The fields a subscription key is built from.
class SubscriptionRequest : public TransactionMessage {
public:
    std::string dn;
    std::int32_t MOInstance = 0;
    std::string attributeName;
    std::int32_t operation = 0; ///< 18 insert, 23 update, 9 delete, 0 any
    std::int32_t notificationForAll = 0;
    std::int32_t transactions = 0;
    std::int32_t withAlternate = 0;

protected:
    void describeRest(FieldList& fields) override
    {
        fields(dn, MOInstance, attributeName, operation, notificationForAll, transactions, withAlternate);
    }
};

using TAMO_DBRegToNotif = Numbered<0x100E, SubscriptionRequest>;

class TAMO_DBUnRegToNotif : public Numbered<0x101C, SubscriptionRequest> {
public:
    std::int32_t ticket = -1; ///< -1: find the ticket by the key fields

protected:
    void describeRest(FieldList& fields) override
    {
        SubscriptionRequest::describeRest(fields);
        fields(ticket);
    }
};

using TAMO_DBUnRegToAllNotifs = Numbered<0x200F>;
using TAMO_DBOrderReady = Numbered<0x100D>;
using TAMO_DBShutdownDb = Numbered<0x103E>;
using TAMO_DBCleanDatabase = Numbered<0x1040>;
using TAMO_EnableAttrSync = Numbered<0x200C>;
using TAMO_DBStoreBrMBackup = Numbered<0x2014>;
using TAMO_DBIntegrityCheck = Numbered<0x2018>;

class TAMO_DBStorePersistentDump : public Numbered<0x102B> {
public:
    bool backup = false;
    bool ignoreUpgradeState = false;

protected:
    void describeRest(FieldList& fields) override { fields(backup, ignoreUpgradeState); }
};

class TAMO_DBLoadAlternateStorage : public Numbered<0x107C> {
public:
    std::int32_t slot = 0;

protected:
    void describeRest(FieldList& fields) override { fields(slot); }
};

} // namespace TAMO::Messages
