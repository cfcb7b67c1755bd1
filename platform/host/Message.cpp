// Bodies of messages: one MessagePack array of a message's fields in order. Writing and reading go
// through the same list of fields (Message::describe), so the two directions cannot drift apart.

#include "platform/messages/Message.h"

#include "platform/host/MessagePack.h"

#include "platform/messages/Answers.h"
#include "platform/messages/Notifications.h"

namespace TAMO::Messages {

namespace {

using namespace Wire;

/// Counts the fields, for the head of the array.
class FieldCounter : public FieldList {
public:
    void field(bool&) override { ++m_count; }
    void field(std::int32_t&) override { ++m_count; }
    void field(std::int64_t&) override { ++m_count; }
    void field(std::string&) override { ++m_count; }
    void field(Bytes&) override { ++m_count; }
    void field(Value&) override { ++m_count; }
    void field(std::vector<std::int32_t>&) override { ++m_count; }
    void field(std::vector<std::string>&) override { ++m_count; }
    void field(std::map<std::string, std::string>&) override { ++m_count; }
    void field(std::map<std::string, Value>&) override { ++m_count; }
    std::size_t count(std::size_t current, std::size_t) override
    {
        ++m_count;
        return current;
    }
    std::uint32_t fields() const { return m_count; }

private:
    std::uint32_t m_count = 0;
};

class FieldWriter : public FieldList {
public:
    explicit FieldWriter(Packer& packer) : m_packer(packer) {}
    void field(bool& value) override { m_packer.pack(value); }
    void field(std::int32_t& value) override { m_packer.pack(value); }
    void field(std::int64_t& value) override { m_packer.pack(value); }
    void field(std::string& text) override { packText(m_packer, text); }
    void field(Bytes& bytes) override { packBytes(m_packer, bytes.data(), bytes.size()); }
    void field(Value& value) override { packValue(m_packer, value); }
    void field(std::vector<std::int32_t>& numbers) override
    {
        m_packer.pack_array(static_cast<std::uint32_t>(numbers.size()));
        for (const std::int32_t number : numbers)
            m_packer.pack(number);
    }
    void field(std::vector<std::string>& texts) override
    {
        m_packer.pack_array(static_cast<std::uint32_t>(texts.size()));
        for (const std::string& text : texts)
            packText(m_packer, text);
    }
    void field(std::map<std::string, std::string>& texts) override
    {
        m_packer.pack_map(static_cast<std::uint32_t>(texts.size()));
        for (const auto& [key, text] : texts) {
            packText(m_packer, key);
            packText(m_packer, text);
        }
    }
    void field(std::map<std::string, Value>& values) override
    {
        m_packer.pack_map(static_cast<std::uint32_t>(values.size()));
        for (const auto& [key, value] : values) {
            packText(m_packer, key);
            packValue(m_packer, value);
        }
    }
    std::size_t count(std::size_t current, std::size_t) override
    {
        m_packer.pack(static_cast<std::uint32_t>(current));
        return current;
    }

private:
    Packer& m_packer;
};

class FieldReader : public FieldList {
public:
    FieldReader(const msgpack::object* first, std::size_t available) : m_next(first), m_left(available) {}
    void field(bool& value) override { value = toBool(next()); }
    void field(std::int32_t& value) override { value = toInteger<std::int32_t>(next()); }
    void field(std::int64_t& value) override { value = toInteger<std::int64_t>(next()); }
    void field(std::string& text) override { text = toText(next()); }
    void field(Bytes& bytes) override
    {
        const std::string read = toBytes(next());
        bytes.assign(read.begin(), read.end());
    }
    void field(Value& value) override { value = toValue(next()); }
    void field(std::vector<std::int32_t>& numbers) override
    {
        numbers.clear();
        for (const msgpack::object& element : array())
            numbers.push_back(toInteger<std::int32_t>(element));
    }
    void field(std::vector<std::string>& texts) override
    {
        texts.clear();
        for (const msgpack::object& element : array())
            texts.push_back(toText(element));
    }
    void field(std::map<std::string, std::string>& texts) override
    {
        texts.clear();
        for (const msgpack::object_kv& entry : map())
            texts.insert_or_assign(toText(entry.key), toText(entry.val));
    }
    void field(std::map<std::string, Value>& values) override
    {
        values.clear();
        for (const msgpack::object_kv& entry : map())
            values.insert_or_assign(toText(entry.key), toValue(entry.val));
    }
    std::size_t count(std::size_t, std::size_t fieldsEach) override
    {
        const auto records = toInteger<std::uint32_t>(next());
        if (records > m_left / fieldsEach)
            throw BadBytes("a list longer than its message");
        return records;
    }
    bool atEnd() const { return m_left == 0; }

private:
    template <class Element>
    struct Range {
        const Element* first;
        std::size_t size;
        const Element* begin() const { return first; }
        const Element* end() const { return first + size; }
    };

    const msgpack::object& next()
    {
        if (m_left == 0)
            throw BadBytes("a field is missing");
        --m_left;
        return *m_next++;
    }
    Range<msgpack::object> array()
    {
        const msgpack::object& object = next();
        if (object.type != msgpack::type::ARRAY)
            throw BadBytes("no list where one belongs");
        return {object.via.array.ptr, object.via.array.size};
    }
    Range<msgpack::object_kv> map()
    {
        const msgpack::object& object = next();
        if (object.type != msgpack::type::MAP)
            throw BadBytes("no map where one belongs");
        return {object.via.map.ptr, object.via.map.size};
    }

    const msgpack::object* m_next;
    std::size_t m_left;
};

/// The bytes of the array head at the start of a body; 0 when there is none.
std::size_t arrayHeadSize(const Bytes& body)
{
    if (body.empty())
        return 0;
    if ((body[0] & 0xF0) == 0x90)
        return 1;
    return body[0] == 0xDC ? 3 : body[0] == 0xDD ? 5 : 0;
}

/// The first element of a body that cannot be read as a whole: the request's transaction id may
/// still be there, and its sender still waits for an answer. Only an integer is looked for.
msgpack::object leadingInteger(const Bytes& body)
{
    constexpr std::size_t longestInteger = 9;
    const std::size_t head = arrayHeadSize(body);
    if (head == 0 || body.size() <= head)
        throw BadBytes("no list of fields");
    const std::size_t length = std::min(longestInteger, body.size() - head);
    std::size_t used = 0;
    const msgpack::unpack_limit integersOnly(0, 0, 0, 0, 0, 1);
    return msgpack::unpack(reinterpret_cast<const char*>(body.data() + head), length, used, nullptr, nullptr,
                           integersOnly)
        .get();
}

} // namespace

Bytes Message::serialize() const
{
    // Listing the fields to a counter or a writer changes none of them.
    auto& fields = const_cast<Message&>(*this);
    FieldCounter counter;
    fields.describe(counter);
    constexpr std::size_t usualSize = 512;
    msgpack::sbuffer body(usualSize);
    Packer packer(body);
    packer.pack_array(counter.fields());
    FieldWriter writer(packer);
    fields.describe(writer);
    return {body.data(), body.data() + body.size()};
}

void Message::decode(const std::uint8_t* bytes, std::size_t length)
{
    const msgpack::object_handle whole = unpackWhole(bytes, length);
    if (whole->type != msgpack::type::ARRAY)
        throw BadBytes("no list of fields");
    FieldReader reader(whole->via.array.ptr, whole->via.array.size);
    describe(reader);
    if (!reader.atEnd())
        throw BadBytes("more fields than belong there");
}

bool Message::deserialize(const RawMessage* raw)
{
    try {
        decode(raw->body.data(), raw->body.size());
        return true;
    } catch (const std::exception&) {
        // read what leads the fields below
    }
    try {
        const msgpack::object first = leadingInteger(raw->body);
        FieldReader reader(&first, 1);
        describe(reader);
    } catch (const std::exception&) {
        // the fields that could be read are filled; the message is refused either way
    }
    return false;
}

void TransactionMessage::describe(FieldList& fields)
{
    fields(transId);
    m_hasTransId = true;
    describeRest(fields);
}

void describeData(FieldList& fields, IPCData::IPCdataRsp& data)
{
    fields(data.answerKind, data.receiver, data.result, data.dataValid, data.data);
}

void TAMO_DBTransactionNotifData::updateAttributes(const std::string& dn, const std::vector<std::string>& attributes,
                                                   std::int32_t operation, bool sameAsPrevious)
{
    entries.push_back({dn, attributes, operation, sameAsPrevious});
}

TAMO_DBNotification::TAMO_DBNotification(std::int32_t ofTicket, TAMO_DBTransactionNotifData data)
    : ticket(ofTicket), transaction(std::move(data))
{}

TAMO_DBNotification::TAMO_DBNotification(std::int32_t ofTicket, std::int32_t zero, Value ofValue, std::int32_t ofType,
                                         std::string ofAttribute, std::int32_t ofAttributeOperation,
                                         std::int32_t ofObjectOperation, std::string ownDn,
                                         std::vector<attrNameValuePair> attributes, std::int32_t attributeCount,
                                         std::string ofWholeDn)
    : ticket(ofTicket),
      reserved(zero),
      value(std::move(ofValue)),
      valueType(ofType),
      attributeName(std::move(ofAttribute)),
      attributeOperation(ofAttributeOperation),
      objectOperation(ofObjectOperation),
      dn(std::move(ownDn)),
      attributeList(std::move(attributes)),
      attributeListLength(attributeCount),
      wholeDn(std::move(ofWholeDn))
{}

void TAMO_DBNotification::describe(FieldList& fields)
{
    fields(ticket, reserved, value, valueType, attributeName, attributeOperation, objectOperation, dn);
    attributeList.resize(fields.count(attributeList.size(), 6));
    for (attrNameValuePair& pair : attributeList)
        fields(pair.name, pair.value, pair.valueType, pair.operation, pair.storageKind, pair.hidden);
    fields(attributeListLength, wholeDn);
    transaction.entries.resize(fields.count(transaction.entries.size(), 4));
    for (TAMO_DBTransactionNotifData::Entry& entry : transaction.entries)
        fields(entry.dn, entry.attributes, entry.operation, entry.sameAsPrevious);
}

} // namespace TAMO::Messages
