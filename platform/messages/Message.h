#pragma once

#include "platform/messages/RawMessage.h"
#include "values/Value.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace TAMO::Messages {

/// What a message lists its fields to, in wire order: a writer takes them, a reader fills them.
class FieldList {
public:
    virtual ~FieldList() = default;
    virtual void field(bool& value) = 0;
    virtual void field(std::int32_t& value) = 0;
    virtual void field(std::int64_t& value) = 0;
    virtual void field(std::string& text) = 0;
    virtual void field(Bytes& bytes) = 0;
    virtual void field(Value& value) = 0;
    virtual void field(std::vector<std::int32_t>& numbers) = 0;
    virtual void field(std::vector<std::string>& texts) = 0;
    virtual void field(std::map<std::string, std::string>& texts) = 0;
    virtual void field(std::map<std::string, Value>& values) = 0;
    /// The length of a list of records that follow field by field; a reader resizes to it, having
    /// checked that each record can still take `fieldsEach` bytes of what was received.
    virtual std::size_t count(std::size_t current, std::size_t fieldsEach) = 0;

    template <class... Fields>
    void operator()(Fields&... fields)
    {
        (field(fields), ...);
    }
};

/// A message: a number and a list of fields. The body is one MessagePack array of the fields in
/// order (docs/protocol.md).
class Message {
public:
    virtual ~Message() = default;
    virtual std::uint32_t messageId() const = 0;

    Bytes serialize() const;

    /// Fills the fields from a body. Throws a std::exception that says what is wrong when the bytes are not
    /// exactly this message's fields; fields read before the fault keep what was read.
    void decode(const std::uint8_t* bytes, std::size_t length);

    /// Fills the fields from a received body. False when the body does not hold exactly this
    /// message's fields; fields read before the fault keep what was read.
    [[nodiscard]] bool deserialize(const RawMessage* raw);

protected:
    virtual void describe(FieldList& fields) = 0;
};

/// A request or answer that carries a transaction id, as its first field.
class TransactionMessage : public Message {
public:
    std::int32_t transId = 0;
    /// False only after a deserialize() that failed before the transaction id was read.
    bool hasTransId() const { return m_hasTransId; }

protected:
    TransactionMessage() = default;
    explicit TransactionMessage(std::int32_t id) : transId(id) {}
    virtual void describeRest(FieldList&) {}

private:
    void describe(FieldList& fields) final;
    bool m_hasTransId = false;
};

/// Fixes a message's number.
template <std::uint32_t Id, class Base = TransactionMessage>
class Numbered : public Base {
public:
    using Base::Base;
    static constexpr std::uint32_t id = Id;
    std::uint32_t messageId() const final { return Id; }
};

/// The number of the answer to a request.
constexpr std::uint32_t answerTo(std::uint32_t requestId) { return requestId | 0x8000u; }

} // namespace TAMO::Messages
