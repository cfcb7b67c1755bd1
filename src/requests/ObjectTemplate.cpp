// Template files of new objects: XML with an element "mo" for each object, whose first child is the
// object's DN and whose next children, named "attribute", describe its attributes.

#include "requests/ObjectTemplate.h"

#include "platform/middleware/Log.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeFilter.h>
#include <Poco/DOM/NodeIterator.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <fstream>
#include <iostream>
#include <sys/stat.h>

namespace {

using namespace Poco::XML;

const Element* firstElement(const Node* node)
{
    while (node && node->nodeType() != Node::ELEMENT_NODE)
        node = node->nextSibling();
    return static_cast<const Element*>(node);
}

const Element* firstChild(const Element& element) { return firstElement(element.firstChild()); }
const Element* nextElement(const Element& element) { return firstElement(element.nextSibling()); }

std::string valueOf(const Element& element)
{
    const std::string text = element.innerText();
    return text.empty() ? "0" : text;
}

/// The "mo" element of the object; null when the file has none.
const Element* findObject(Document& document, const std::string& dn)
{
    NodeIterator elements(&document, NodeFilter::SHOW_ELEMENT);
    while (const Node* const node = elements.nextNode()) {
        if (node->nodeName() != "mo" || !node->hasChildNodes())
            continue;
        const auto* const object = static_cast<const Element*>(node);
        const Element* const name = firstChild(*object);
        if (name && name->innerText() == dn)
            return object;
    }
    return nullptr;
}

/// One "attribute" element being read, child by child.
class AttributeReader {
public:
    explicit AttributeReader(ObjectTemplate& target) : m_target(target) {}

    void read(const Element& attribute)
    {
        for (const Element* part = firstChild(attribute); part; part = nextElement(*part))
            readPart(*part);
        if (!m_hasMembers)
            m_target.plain[m_name] = {m_value, m_type};
    }

private:
    void readPart(const Element& part)
    {
        const std::string& kind = part.nodeName();
        if (kind == "name")
            readName(part.innerText());
        else if (kind == "type")
            m_type = part.innerText();
        else if (kind == "value")
            m_value = valueOf(part);
        else if (kind == "attribute" && m_type == "struct")
            readMember(part);
    }

    /// Behind an enum or struct type stands the name of that type.
    void readName(const std::string& name)
    {
        if (m_type == "struct")
            m_structType = name;
        else if (m_type != "enum")
            m_name = name;
    }

    void readMember(const Element& member)
    {
        ObjectTemplate::Member read;
        read.attribute = m_name;
        bool hasValue = false;
        for (const Element* part = firstChild(member); part; part = nextElement(*part)) {
            if (part->nodeName() == "name") {
                read.name = part->innerText();
            } else if (part->nodeName() == "type") {
                read.type = part->innerText();
            } else if (part->nodeName() == "value") {
                read.value = valueOf(*part);
                hasValue = true;
            }
        }
        if (!hasValue)
            return;
        m_target.structs[m_structType + "=" + m_name].push_back(std::move(read));
        m_hasMembers = true;
    }

    ObjectTemplate& m_target;
    std::string m_name;
    std::string m_type;
    std::string m_value;
    std::string m_structType;
    bool m_hasMembers = false;
};

bool isReadable(const std::string& path)
{
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_size <= static_cast<off_t>(ObjectTemplate::maxFileSize);
}

/// Refuses elements that are nested too deep, before a document of them is built.
class DepthCheck : public DefaultHandler {
public:
    void startElement(const XMLString&, const XMLString&, const XMLString&, const Attributes&) override
    {
        if (++m_depth > ObjectTemplate::maxDepth)
            throw SAXException("elements nested deeper than " + std::to_string(ObjectTemplate::maxDepth));
    }
    void endElement(const XMLString&, const XMLString&, const XMLString&) override { --m_depth; }

private:
    std::size_t m_depth = 0;
};

void checkDepth(std::istream& file)
{
    DepthCheck check;
    SAXParser parser;
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
    parser.setContentHandler(&check);
    InputSource source(file);
    parser.parse(&source);
    file.clear();
    file.seekg(0);
}

void parse(std::istream& file, const std::string& dn, ObjectTemplate& target)
{
    checkDepth(file);
    DOMParser parser;
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
    InputSource source(file);
    Poco::AutoPtr<Document> document = parser.parse(&source);
    const Element* const object = findObject(*document, dn);
    if (!object)
        return;
    for (const Element* part = nextElement(*firstChild(*object)); part && part->nodeName() == "attribute";
         part = nextElement(*part))
        AttributeReader(target).read(*part);
}

} // namespace

void ObjectTemplate::clear()
{
    plain.clear();
    structs.clear();
}

bool ObjectTemplate::read(const std::string& path, const std::string& dn)
{
    clear();
    std::ifstream file;
    if (isReadable(path))
        file.open(path, std::ios::binary);
    if (!file.is_open() || !file) {
        LOG_ERROR("Problems with opening %s ", path.c_str());
        return false;
    }
    try {
        parse(file, dn, *this);
        return true;
    } catch (const Poco::Exception& error) {
        std::cerr << error.displayText() << std::endl;
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
    }
    LOG_ERROR("Problems with POCO::XML parsing ");
    clear();
    return false;
}
