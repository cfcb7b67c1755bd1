#pragma once

#include "platform/messages/IPCData.h"
#include "values/Attribute.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

/// The object container that services and the store exchange. It owns its attributes.
class DBObject {
public:
    using Attributes = std::map<std::string, Attribute, std::less<>>;

    DBObject(std::string ownDn, std::int32_t instance, bool momObject, bool systemObject, std::int32_t opState,
             std::int32_t adminState);
    DBObject(std::string ownDn, std::int32_t instance, bool momObject, bool systemObject, std::int32_t opState,
             std::int32_t adminState, std::string ofParentDn, std::int32_t ofParentMOInstance);
    virtual ~DBObject() = default;
    DBObject(const DBObject&) = default;
    DBObject& operator=(const DBObject&) = default;
    DBObject(DBObject&&) = default;
    DBObject& operator=(DBObject&&) = default;

    /// Adds the attribute under its name. False when there is one of that name already: then neither
    /// the container nor the attribute changes; only a true takes the attribute over.
    bool addAttribute(Attribute&& attribute);
    bool addAlternateAttribute(Attribute&& attribute);

    /// The attribute of that name, or null. It stays the container's.
    Attribute* getAttribute(std::string_view name);
    const Attribute* getAttribute(std::string_view name) const;
    Attribute* getAlternateAttribute(std::string_view name);

    /// The object's DN as a client would write it: parent DN, comma and own pair.
    std::string fullDn() const;

    /// Writes the object behind what `buffer` holds, in at most `capacity` bytes, compressed when
    /// that makes a large object smaller. Returns the bytes written, -1 when they do not fit (then
    /// the buffer is as it was). `uncompressedSize` becomes 0 when nothing was compressed.
    static std::int32_t SerializeDataforDB(const DBObject& object, Bytes& buffer, std::int32_t capacity,
                                           std::int32_t& uncompressedSize);
    static std::int32_t SerializeAttrforDB(const Attribute& attribute, Bytes& buffer, std::int32_t capacity,
                                           std::int32_t& uncompressedSize);

    /// Rebuilds an object from such bytes; null when they are not one. `uncompressedSize` is the one
    /// that the writer gave, 0 for bytes that are not compressed. No memory beyond 16 MiB is taken
    /// for what the bytes claim.
    static std::unique_ptr<DBObject> DeSerializeDatafromDB(const std::uint8_t* buffer, std::int32_t length,
                                                           std::int32_t uncompressedSize);
    static std::unique_ptr<Attribute> DeSerializeAttrfromDB(const std::uint8_t* buffer, std::int32_t length,
                                                            std::int32_t uncompressedSize);

    std::int32_t id = 0;       ///< row id, 0 when none is given
    std::int32_t parentId = 0; ///< row id of the parent, 0 when none is given
    std::string dn;            ///< the object's own pair
    std::int32_t MOInstance = 1;
    bool isMOMObject = false;
    bool system = false;
    std::int32_t operationalState = 0;
    std::int32_t administrativeState = 1;
    std::string parentDn; ///< whole DN of the parent, empty when none is given
    std::int32_t parentMOInstance = 0;
    Attributes attributes;
    Attributes alternateAttributes;
};
