// Template files of new objects: XML with an element "mo" for each object, whose first child is the
// object's DN and whose next children, named "attribute", describe its attributes.

#include "requests/ObjectTemplate.h"

#include "platform/middleware/Log.h"
#include "platform/utility/XmlFile.h"

#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/NodeFilter.h>
#include <Poco/DOM/NodeIterator.h>

#include <iostream>

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

void readObject(Document& document, const std::string& dn, ObjectTemplate& target)
{
    const Element* const object = findObject(document, dn);
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
    const XmlFile file(path);
    if (!file.isOpen()) {
        LOG_ERROR("Problems with opening %s ", path.c_str());
        return false;
    }
    try {
        readObject(*file.parse(maxFileSize), dn, *this);
        return true;
    } catch (const std::exception& error) {
        std::cerr << textOf(error) << std::endl;
    }
    LOG_ERROR("Problems with POCO::XML parsing ");
    clear();
    return false;
}
