// Deprecated attributes and their successors carry the same value: brought into step once, at start-up
// or on request, and mirrored from then on as changes are delivered (store/SQLite_Notify.cpp).

#include "store/SQLite.h"

#include "persistence/AttributeSyncFile.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/XmlFile.h"
#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <exception>
#include <iostream>

namespace {

std::string mappingFile()
{
    return environmentPath("DEPRECATED_MOM_ATTRIBUTE_MAPPING_FILE_PATH").value_or("/opt/OAM/tamo/conf") + "/" +
           AttributeSyncFile::name;
}

Attribute mirrored(const std::string& name, const Value& value)
{
    return {false, name, value, 0, false, IPCData::INVALID, true, false};
}

} // namespace

bool SQLite::parseDeprecatedAttributeMappingXML()
{
    const char* const operation = __func__;
    LOG_DEBUG("SQLite::%s() START", operation);
    const std::string path = mappingFile();
    LOG_DEBUG("SQLite::%s() Trying to read file: %s", operation, path.c_str());
    const XmlFile file(path);
    if (!file.isOpen()) {
        LOG_ERROR("SQLite::%s() File NOT found.", operation);
        return false;
    }
    LOG_DEBUG("SQLite::%s() File found.", operation);
    try {
        const bool hasNodes = AttributeSyncFile::read(file, [&](AttributeSyncPair pair) {
            const auto& [first, second] = pair.sides;
            LOG_DEBUG("%s: Adding pair: %s:%s  %s:%s", operation, first.dn.c_str(), first.attribute.c_str(),
                      second.dn.c_str(), second.attribute.c_str());
            m_syncPairs.append(std::move(pair));
        });
        if (!hasNodes) {
            LOG_ERROR("SQLite::%s() Mapping file doesn't have nodes.", operation);
            return false;
        }
    } catch (const std::exception& error) {
        const std::string text = textOf(error);
        std::cerr << text << std::endl;
        LOG_ERROR("SQLite::%s() Problems with POCO::XML parsing, msg: %s ", operation, text.c_str());
        return false;
    }
    LOG_DEBUG("SQLite::%s() pNode was NULL", operation);
    LOG_INFO("SQLite::%s() %s parsed successfully", operation, path.c_str());
    return true;
}

bool SQLite::syncAttributes()
{
    LOG_INFO("SQLite::%s() Running attribute synchronization", __func__);
    m_syncPairs.lookAgain();
    const auto stored = [this](const AttributeSyncPair::Side& side) -> std::unique_ptr<Attribute> {
        const std::int32_t id = get_object_id(side.dn, 1);
        return id == 0 ? nullptr : sql_get_attribute(id, side.attribute, "syncAttributes", false);
    };
    for (std::size_t i = 0; i < m_syncPairs.size(); ++i) {
        const AttributeSyncPair* const pair = m_syncPairs.active(i);
        if (!pair)
            continue;
        const auto [first, second] = pair->sides; // copies: an update may find objects for other pairs
        if (const auto successor = stored(second))
            updateAttribute(first.dn, first.attribute, successor->value);
        else if (const auto deprecated = stored(first))
            updateAttribute(second.dn, second.attribute, deprecated->value);
    }
    LOG_INFO("SQLite::%s() Attribute synchronization done", __func__);
    return true;
}

bool SQLite::checkIsAttrSyncNeeded(const std::string& dn, const std::string& name, std::string& otherDn,
                                   std::string& otherName)
{
    LOG_DEBUG("SQLite::%s() Searching attr sync pair for %s:%s", __func__, dn.c_str(), name.c_str());
    const AttributeSyncPair::Side* const other = m_syncPairs.partnerOf(dn, name);
    if (!other)
        return false;
    otherDn = other->dn;
    otherName = other->attribute;
    LOG_DEBUG("SQLite::%s() Match found!", __func__);
    return true;
}

bool SQLite::SyncAttribute(const std::string& dn, const std::string& name, const Value& value, std::int32_t operation)
{
    const FlagScope guard = synchronising();
    std::string otherDn;
    std::string otherName;
    if (!checkIsAttrSyncNeeded(dn, name, otherDn, otherName))
        return true;
    LOG_DEBUG("SQLite::%s() Syncing %s:%s to %s:%s. operation %d", __func__, dn.c_str(), name.c_str(), otherDn.c_str(),
              otherName.c_str(), operation);
    constexpr bool joined = false;
    switch (operation) {
    case changeInsert:
    case changeUpdate:
        updateAttribute(otherDn, otherName, value);
        break;
    case changeDelete:
        deleteAttribute(otherName, get_object_id(otherDn, 1), joined);
        break;
    default:
        LOG_ERROR("SQLite::%s() Unknown operation: %d", __func__, operation);
        return false;
    }
    LOG_INFO("SQLite::%s() Attributes synchronized successfully (%s:%s to %s:%s)", __func__, dn.c_str(), name.c_str(),
             otherDn.c_str(), otherName.c_str());
    return true;
}

bool SQLite::yieldsToSuccessor(const std::string& dn, const std::string& name, const IsChanged& isChanged)
{
    const AttributeSyncPair::Side* const successor = m_syncPairs.successorOf(dn, name);
    return successor && isChanged(successor->dn, successor->attribute);
}

void SQLite::updateAttribute(const std::string& dn, const std::string& name, const Value& value)
{
    LOG_DEBUG("SQLite::%s() Updating %s:%s", __func__, dn.c_str(), name.c_str());
    constexpr bool joined = false;
    const char* const client = "updateAttribute";
    if (const auto object = sql_get_object(dn, 1, client)) {
        if (Attribute* const attribute = object->getAttribute(name))
            attribute->SetValue(value);
        else
            object->addAttribute(mirrored(name, value));
        sql_update(object.get(), joined, client);
        return;
    }
    const SplitDn split = splitOwnPair(dn);
    constexpr bool isMOMObject = true;
    constexpr bool isSystem = false;
    DBObject object(split.pair, 1, isMOMObject, isSystem, 0, 1, split.parent, 1);
    object.addAttribute(mirrored(name, value));
    sql_insert(&object, joined, client);
}
