// The BO-MO mapping: base-band object identifiers, read from XML files once at start-up and stored as the
// attributes of one object. Nothing of it is persistent; every start reads the files again.

#include "mapping/BOMOMapper.h"

#include "store/SQLite.h"

#include "platform/framework/Messaging.h"
#include "platform/messages/Notifications.h"
#include "platform/middleware/Log.h"
#include "platform/utility/DBObject.h"
#include "platform/utility/XmlFile.h"
#include "values/ValueType.h"

#include <Poco/DOM/Attr.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeFilter.h>
#include <Poco/DOM/NodeIterator.h>

#include <sstream>
#include <stdexcept>

namespace {

using namespace Poco::XML;

/// In the order they are read: of two entries for one name the first counts.
constexpr const char* mappingFiles[] = {"common_mapping.xml", "wcdma_mapping.xml"};

/// The number a text begins with; 0, or the nearest int, where the text gives none.
std::int32_t hexadecimal(const std::string& name, const std::string& text)
{
    std::int32_t number = 0;
    std::istringstream stream(text);
    if (!(stream >> std::hex >> number))
        LOG_WARNING("BOMOMapper::updateBOMO() '%s' of %s is no hexadecimal int, %d is stored", text.c_str(),
                    name.c_str(), number);
    return number;
}

/// The elements of a mapping file in document order, handed to the mapper entry by entry.
class MappingWalk {
public:
    MappingWalk(BOMOMapper& mapper, Document& document, const std::string& fileName, DBObject& mapping)
        : m_mapper(mapper), m_elements(&document, NodeFilter::SHOW_ELEMENT), m_fileName(fileName), m_mapping(mapping)
    {
        next();
    }

    /// False when the document is no mapping.
    bool run()
    {
        if (!m_element || m_element->nodeName() != "mapping")
            return false;
        while (m_element) {
            if (!m_element->hasChildNodes()) {
                LOG_ERROR("Mapping file doesn't have nodes.");
                next();
            } else if (isObject()) {
                readObject();
            } else {
                next();
            }
        }
        return true;
    }

private:
    void next() { m_element = static_cast<Element*>(m_elements.nextNode()); }
    bool isObject() const { return m_element->nodeName() == "mo"; }
    bool isEntry() const { return m_element && !m_element->hasChildNodes() && !isObject(); }

    /// An object and the attributes behind it. One that cannot be added is left to the caller, to whom
    /// it is an element without children; so are those after it, up to the next object.
    void readObject()
    {
        if (!addEntry("dn", "bo-class"))
            throw std::runtime_error("an mo element that cannot be added");
        for (next(); isEntry(); next())
            if (!addEntry("name", "bo-attribute")) {
                LOG_ERROR("MOM - BOM mapping file parsing failed: %s", m_fileName.c_str());
                return;
            }
    }

    bool addEntry(const char* name, const char* value)
    {
        return m_mapper.updateBOMO(m_mapping, attribute(name), attribute(value));
    }

    const std::string& attribute(const char* name) const
    {
        const Attr* const found = m_element->getAttributeNode(name);
        if (!found)
            throw std::runtime_error("an element " + m_element->nodeName() + " without the attribute " + name);
        return found->getValue();
    }

    BOMOMapper& m_mapper;
    NodeIterator m_elements;
    const std::string& m_fileName;
    DBObject& m_mapping;
    Element* m_element = nullptr; // the document's; null behind the last
};

} // namespace

int BOMOMapper::mapBOMO(std::string directory)
{
    try {
        LOG_DEBUG("BOMOMapper::mapBOMO()");
        DBObject mapping(objectName, 1, false, false, 0, 1);
        if (!checkFiles(directory)) {
            LOG_DEBUG("BOMOMapper::mapBOMO(): files: %d ", 0);
            return 0;
        }
        bool parsed = true;
        for (const char* const file : mappingFiles)
            parsed = ParseFile(directory, file, mapping) && parsed; // both, to name every broken file
        if (!parsed) {
            sendFaultNotif(faultParsingFailed, true);
            return 0;
        }
        if (!insertBOMO(mapping))
            return 0;
        LOG_INFO("All attributes mapped successfully!");
        return 1;
    } catch (const std::exception& error) { // no memory, for one: the service goes on without the mapping
        LOG_ERROR("BOMOMapper::mapBOMO(): Ended by an exception: %s", error.what());
        return 0;
    }
}

bool BOMOMapper::checkFiles(std::string& directory)
{
    LOG_DEBUG("BOMOMapper::checkFiles()");
    if (!directory.empty())
        directory += "/";
    std::string missing;
    for (const std::string file : mappingFiles) {
        if (XmlFile(directory + file).isOpen())
            LOG_DEBUG("MOM - BOM mapping file %s was found.", file.c_str());
        else
            missing += file + ", ";
    }
    if (missing.empty())
        return true;
    LOG_ERROR("MOM - BOM mapping file(s) missing: %s", missing.c_str());
    sendFaultNotif(faultFilesMissing, true);
    return false;
}

bool BOMOMapper::ParseFile(const std::string& directory, const std::string& fileName, DBObject& mapping)
{
    const char* const name = fileName.c_str();
    LOG_DEBUG("BOMOMapper::ParseFile() Path: %s FileName: %s", directory.c_str(), name);
    try {
        const XmlFile file(directory + fileName);
        if (!file.isOpen()) {
            LOG_DEBUG("Unable to open file: %s", name);
            LOG_ERROR("MOM - BOM mapping file parsing failed: %s", name);
            return false;
        }
        const auto document = file.parse(maxFileSize);
        if (!MappingWalk(*this, *document, fileName, mapping).run())
            return false;
        LOG_INFO("MOM - BOM mapping parsed ok");
        return true;
    } catch (const std::exception& error) {
        LOG_ERROR("MOM - BOM mapping file parsing failed: %s", name);
        LOG_WARNING("BOMOMapper::ParseFile() %s: %s", name, textOf(error).c_str());
        return false;
    }
}

bool BOMOMapper::updateBOMO(DBObject& mapping, const std::string& name, const std::string& value)
{
    LOG_DEBUG("BOMOMapper::updateBOMO() Name: %s Value: %s", name.c_str(), value.c_str());
    const std::int32_t number = hexadecimal(name, value);
    if (mapping.getAttribute(name))
        return true;
    return !name.empty() && mapping.addAttribute(Attribute(false, name, number, 0, false, IPCData::INT32, true, false));
}

bool BOMOMapper::insertBOMO(DBObject& mapping)
{
    LOG_DEBUG("BOMOMapper::insertBOMO()");
    constexpr bool inTransaction = false;
    const bool inserted = SQLite::getInstance().sql_insert(&mapping, inTransaction, "BOMOMapper");
    if (inserted)
        LOG_INFO("BOMOMapper::insertBOMO(): BOMOMapping inserted into database.");
    else
        LOG_ERROR("BOMOMapper::insertBOMO(): Failed to insert BOMOMapping into database.");
    return inserted;
}

void BOMOMapper::sendFaultNotif(std::int32_t faultCode, bool raise)
{
    constexpr std::int32_t faultManagement = 3;
    constexpr int number = 13;
    const TAMO::Messages::TAMO_FaultNotification fault(faultCode, raise ? 1 : 0);
    const auto code = static_cast<unsigned>(faultCode);
    if (TAMO::Framework::Messaging::sendTamoMessage(faultManagement, fault, number))
        LOG_INFO("BOMOMapper::sendFaultNotif: fault 0x%x sent to FM", code);
    else
        LOG_INFO("BOMOMapper::sendFaultNotif: sending fault 0x%x to FM failed", code);
}
