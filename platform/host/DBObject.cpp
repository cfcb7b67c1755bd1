// The object container and its byte form: one MessagePack array, compressed with LZ4 when it is
// large and that makes it smaller.

#include "platform/utility/DBObject.h"

#include "platform/host/MessagePack.h"
#include "values/DistinguishedName.h"

#include <lz4.h>

namespace {

using namespace TAMO::Wire;

/// Objects below this many bytes are not worth compressing.
constexpr std::size_t compressionThreshold = 4096;

/// No object is larger than this when uncompressed, whatever its bytes claim.
constexpr std::int32_t maxUncompressed = 16 * 1024 * 1024;

/// LZ4 never shrinks to less than about 1/255 of the original.
constexpr std::int64_t maxCompressionRatio = 255;

constexpr std::size_t attributeFields = 9;
constexpr std::size_t objectFields = 12;

void packAttribute(Packer& packer, const Attribute& attribute)
{
    packer.pack_array(attributeFields);
    packText(packer, attribute.name);
    packValue(packer, attribute.value);
    packer.pack(attribute.type);
    packer.pack(attribute.hidden);
    packer.pack(attribute.persistent);
    packer.pack(attribute.changed);
    packer.pack(attribute.deleted);
    packer.pack(attribute.slot);
    packer.pack(attribute.boamAttrId);
}

Attribute toAttribute(const msgpack::object& object)
{
    const msgpack::object* part = elements(object, attributeFields);
    Attribute attribute(toBool(part[3]), toText(part[0]), toValue(part[1]), toInteger<std::int32_t>(part[8]),
                        toBool(part[4]), toInteger<std::int32_t>(part[2]), toBool(part[5]), toBool(part[6]));
    attribute.slot = toInteger<std::int32_t>(part[7]);
    return attribute;
}

void packAttributes(Packer& packer, const DBObject::Attributes& attributes)
{
    packer.pack_array(static_cast<std::uint32_t>(attributes.size()));
    for (const auto& [name, attribute] : attributes)
        packAttribute(packer, attribute);
}

template <class Add>
void eachAttribute(const msgpack::object& object, Add add)
{
    if (object.type != msgpack::type::ARRAY)
        throw BadBytes("no attribute list where one belongs");
    for (std::uint32_t i = 0; i < object.via.array.size; ++i)
        if (!add(toAttribute(object.via.array.ptr[i])))
            throw BadBytes("an attribute name that occurs twice");
}

void packObject(Packer& packer, const DBObject& object)
{
    packer.pack_array(objectFields);
    packer.pack(object.id);
    packer.pack(object.parentId);
    packText(packer, object.dn);
    packer.pack(object.MOInstance);
    packer.pack(object.isMOMObject);
    packer.pack(object.system);
    packer.pack(object.operationalState);
    packer.pack(object.administrativeState);
    packText(packer, object.parentDn);
    packer.pack(object.parentMOInstance);
    packAttributes(packer, object.attributes);
    packAttributes(packer, object.alternateAttributes);
}

std::unique_ptr<DBObject> toObject(const msgpack::object& packed)
{
    const msgpack::object* part = elements(packed, objectFields);
    auto object =
        std::make_unique<DBObject>(toText(part[2]), toInteger<std::int32_t>(part[3]), toBool(part[4]), toBool(part[5]),
                                   toInteger<std::int32_t>(part[6]), toInteger<std::int32_t>(part[7]), toText(part[8]),
                                   toInteger<std::int32_t>(part[9]));
    object->id = toInteger<std::int32_t>(part[0]);
    object->parentId = toInteger<std::int32_t>(part[1]);
    eachAttribute(part[10], [&](Attribute attribute) { return object->addAttribute(std::move(attribute)); });
    eachAttribute(part[11], [&](Attribute attribute) { return object->addAlternateAttribute(std::move(attribute)); });
    return object;
}

/// Appends `plain` to `buffer` in its shorter form.
std::int32_t append(const msgpack::sbuffer& plain, Bytes& buffer, std::int32_t capacity, std::int32_t& uncompressedSize)
{
    uncompressedSize = 0;
    const std::size_t start = buffer.size();
    const auto room = static_cast<std::size_t>(std::max(capacity, 0));
    if (plain.size() > compressionThreshold && plain.size() <= maxUncompressed) {
        const std::size_t useful = std::min(room, plain.size() - 1);
        buffer.resize(start + useful);
        const int written = LZ4_compress_default(plain.data(), reinterpret_cast<char*>(buffer.data() + start),
                                                 static_cast<int>(plain.size()), static_cast<int>(useful));
        buffer.resize(start + static_cast<std::size_t>(std::max(written, 0)));
        if (written > 0) {
            uncompressedSize = static_cast<std::int32_t>(plain.size());
            return written;
        }
    }
    if (plain.size() > room)
        return -1;
    buffer.insert(buffer.end(), plain.data(), plain.data() + plain.size());
    return static_cast<std::int32_t>(plain.size());
}

/// The bytes as they were before compression; throws when they were not compressed from that size.
Bytes uncompressed(const std::uint8_t* buffer, std::int32_t length, std::int32_t size)
{
    if (length <= 0 || size < 0 || size > maxUncompressed || size > length * maxCompressionRatio)
        throw BadBytes("a size that cannot be");
    Bytes plain(static_cast<std::size_t>(size));
    if (LZ4_decompress_safe(reinterpret_cast<const char*>(buffer), reinterpret_cast<char*>(plain.data()), length,
                            size) != size)
        throw BadBytes("damaged compressed bytes");
    return plain;
}

template <class Build>
auto rebuild(const std::uint8_t* buffer, std::int32_t length, std::int32_t uncompressedSize, Build build)
    -> decltype(build(std::declval<const msgpack::object&>()))
{
    try {
        if (length <= 0)
            return nullptr;
        if (uncompressedSize == 0)
            return build(unpackWhole(buffer, static_cast<std::size_t>(length)).get());
        const Bytes plain = uncompressed(buffer, length, uncompressedSize);
        return build(unpackWhole(plain.data(), plain.size()).get());
    } catch (const std::exception&) {
        return nullptr; // what is wrong with foreign bytes is the sender's business
    }
}

template <class Map>
auto* find(Map& map, std::string_view name)
{
    const auto found = map.find(name);
    return found == map.end() ? nullptr : &found->second;
}

bool addTo(DBObject::Attributes& attributes, Attribute&& attribute)
{
    const auto at = attributes.lower_bound(attribute.name);
    if (at != attributes.end() && at->first == attribute.name)
        return false;
    std::string name = attribute.name;
    attributes.emplace_hint(at, std::move(name), std::move(attribute));
    return true;
}

} // namespace

DBObject::DBObject(std::string ownDn, std::int32_t instance, bool momObject, bool systemObject, std::int32_t opState,
                   std::int32_t adminState)
    : DBObject(std::move(ownDn), instance, momObject, systemObject, opState, adminState, {}, 0)
{}

DBObject::DBObject(std::string ownDn, std::int32_t instance, bool momObject, bool systemObject, std::int32_t opState,
                   std::int32_t adminState, std::string ofParentDn, std::int32_t ofParentMOInstance)
    : dn(std::move(ownDn)),
      MOInstance(instance),
      isMOMObject(momObject),
      system(systemObject),
      operationalState(opState),
      administrativeState(adminState),
      parentDn(std::move(ofParentDn)),
      parentMOInstance(ofParentMOInstance)
{}

bool DBObject::addAttribute(Attribute&& attribute) { return addTo(attributes, std::move(attribute)); }

bool DBObject::addAlternateAttribute(Attribute&& attribute) { return addTo(alternateAttributes, std::move(attribute)); }

Attribute* DBObject::getAttribute(std::string_view name) { return find(attributes, name); }

const Attribute* DBObject::getAttribute(std::string_view name) const { return find(attributes, name); }

Attribute* DBObject::getAlternateAttribute(std::string_view name) { return find(alternateAttributes, name); }

std::string DBObject::fullDn() const { return joinDn(parentDn, dn); }

std::int32_t DBObject::SerializeDataforDB(const DBObject& object, Bytes& buffer, std::int32_t capacity,
                                          std::int32_t& uncompressedSize)
{
    msgpack::sbuffer plain;
    Packer packer(plain);
    packObject(packer, object);
    return append(plain, buffer, capacity, uncompressedSize);
}

std::int32_t DBObject::SerializeAttrforDB(const Attribute& attribute, Bytes& buffer, std::int32_t capacity,
                                          std::int32_t& uncompressedSize)
{
    msgpack::sbuffer plain;
    Packer packer(plain);
    packAttribute(packer, attribute);
    return append(plain, buffer, capacity, uncompressedSize);
}

std::unique_ptr<DBObject> DBObject::DeSerializeDatafromDB(const std::uint8_t* buffer, std::int32_t length,
                                                          std::int32_t uncompressedSize)
{
    return rebuild(buffer, length, uncompressedSize, [](const msgpack::object& packed) { return toObject(packed); });
}

std::unique_ptr<Attribute> DBObject::DeSerializeAttrfromDB(const std::uint8_t* buffer, std::int32_t length,
                                                           std::int32_t uncompressedSize)
{
    return rebuild(buffer, length, uncompressedSize,
                   [](const msgpack::object& packed) { return std::make_unique<Attribute>(toAttribute(packed)); });
}
