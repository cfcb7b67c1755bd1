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
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <fcntl.h>
#include <iostream>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

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
        if (!m_hasMembers && !m_name.empty())
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

/// A regular file's content; none when there is no such file, or it is too large. Opened without
/// waiting: a named pipe must not hold the request thread up.
std::optional<std::string> contentOf(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    std::optional<std::string> content;
    if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_size <= static_cast<off_t>(ObjectTemplate::maxFileSize)) {
        std::string text(static_cast<std::size_t>(status.st_size), '\0');
        const ssize_t length = read(file, text.data(), text.size());
        if (length >= 0) {
            text.resize(static_cast<std::size_t>(length));
            content = std::move(text);
        }
    }
    if (file >= 0)
        close(file);
    return content;
}

/// Refuses elements that are nested too deep, and entities that swell to more text than a file may
/// hold, before a document of them is built.
class ShapeCheck : public DefaultHandler {
public:
    void characters(const XMLChar*, int, int length) override
    {
        m_text += static_cast<std::size_t>(length);
        if (m_text > ObjectTemplate::maxFileSize)
            throw SAXException("more text than a template file may hold");
    }
    void startElement(const XMLString&, const XMLString&, const XMLString&, const Attributes&) override
    {
        if (++m_depth > ObjectTemplate::maxDepth)
            throw SAXException("elements nested deeper than " + std::to_string(ObjectTemplate::maxDepth));
    }
    void endElement(const XMLString&, const XMLString&, const XMLString&) override { --m_depth; }

private:
    std::size_t m_depth = 0;
    std::size_t m_text = 0;
};

void checkShape(const std::string& content)
{
    ShapeCheck check;
    SAXParser parser;
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
    parser.setContentHandler(&check);
    parser.parseMemoryNP(content.data(), content.size());
}

void parse(const std::string& content, const std::string& dn, ObjectTemplate& target)
{
    checkShape(content);
    DOMParser parser;
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
    Poco::AutoPtr<Document> document = parser.parseMemory(content.data(), content.size());
    const Element* const object = findObject(*document, dn);
    if (!object)
        return;
    const Element* part = nextElement(*firstChild(*object));
    if (!part || !part->hasChildNodes())
        return;
    for (; part && part->nodeName() == "attribute"; part = nextElement(*part))
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
    const auto content = contentOf(path);
    if (!content) {
        LOG_ERROR("Problems with opening %s ", path.c_str());
        return false;
    }
    try {
        parse(*content, dn, *this);
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
