#pragma once

#include "platform/messages/Message.h"

#include <string>
#include <utility>
#include <vector>

/// Messages that nobody asked for and nobody answers.

namespace TAMO::Messages {

/// One entry of a notification's attribute list.
struct attrNameValuePair {
    std::string name;
    Value value;
    std::int32_t valueType = 0;
    std::int32_t operation = 0;   ///< 18 insert, 23 update, 9 delete
    std::int32_t storageKind = 0; ///< 0 live, 1 alternate storage, 2 while alternate storage is loaded
    bool hidden = false;
};

/// What one committed client transaction changed, operation by operation.
struct TAMO_DBTransactionNotifData {
    struct Entry {
        std::string dn;
        std::vector<std::string> attributes;
        std::int32_t operation = 0;
        bool sameAsPrevious = false; ///< the operation before this one had the same code
    };
    std::vector<Entry> entries;

    void updateAttributes(const std::string& dn, const std::vector<std::string>& attributes, std::int32_t operation,
                          bool sameAsPrevious);
};

class TAMO_DBNotification : public Numbered<0x100F, Message> {
public:
    TAMO_DBNotification() = default;
    /// A transaction notification.
    TAMO_DBNotification(std::int32_t ofTicket, TAMO_DBTransactionNotifData data);
    /// A notification of an item or of a changed object. `zero` is always 0.
    TAMO_DBNotification(std::int32_t ofTicket, std::int32_t zero, Value ofValue, std::int32_t ofType,
                        std::string ofAttribute, std::int32_t ofAttributeOperation, std::int32_t ofObjectOperation,
                        std::string ownDn, std::vector<attrNameValuePair> attributes, std::int32_t attributeCount,
                        std::string ofWholeDn);

    std::int32_t ticket = -1;
    std::int32_t reserved = 0;
    Value value;
    std::int32_t valueType = 0;
    std::string attributeName;
    std::int32_t attributeOperation = 0;
    std::int32_t objectOperation = 0;
    std::string dn; ///< the object's own pair
    std::vector<attrNameValuePair> attributeList;
    std::int32_t attributeListLength = 0;
    std::string wholeDn;
    TAMO_DBTransactionNotifData transaction;

protected:
    void describe(FieldList& fields) override;
};

/// From the node's middleware: a status of a piece of hardware, as the middleware lays it out.
class TAMO_MiddlewareStatus : public Numbered<0x3000, Message> {
public:
    TAMO_MiddlewareStatus() = default;
    explicit TAMO_MiddlewareStatus(Bytes ofPayload) : payload(std::move(ofPayload)) {}
    Bytes payload; ///< little-endian 32-bit words; see platform/middleware/StatusMessage.h

protected:
    void describe(FieldList& fields) override { fields(payload); }
};

/// To fault management (node 3).
class TAMO_FaultNotification : public Numbered<4102, Message> {
public:
    TAMO_FaultNotification() = default;
    TAMO_FaultNotification(std::int32_t code, std::int32_t raiseFlag) : faultCode(code), raise(raiseFlag) {}
    std::int32_t faultCode = 0;
    std::int32_t raise = 0; ///< 1 raises the fault, 0 cancels it
    std::int32_t thirteen = 13;
    std::string text;

protected:
    void describe(FieldList& fields) override { fields(faultCode, raise, thirteen, text); }
};

/// To the reset service (node 9).
class TAMO_ResetRBS : public Numbered<4123, Message> {
public:
    TAMO_ResetRBS() = default;
    TAMO_ResetRBS(std::int32_t why, std::int32_t secondValue) : reason(why), second(secondValue) {}
    std::int32_t reason = 0; ///< TamoResetReason numbering
    std::int32_t second = 0;
    std::string text;
    std::int32_t minusOne = -1;

protected:
    void describe(FieldList& fields) override { fields(reason, second, text, minusOne); }
};

} // namespace TAMO::Messages
