// The walk over the elements of a mapping file of deprecated attributes. What is done with the pairs
// stands in SQLite_AttributeSync.cpp.

#include "persistence/AttributeSyncFile.h"

#include "platform/utility/XmlFile.h"

#include <Poco/DOM/Document.h>
#include <Poco/DOM/NodeFilter.h>
#include <Poco/DOM/NodeIterator.h>

#include <boost/algorithm/string/trim.hpp>

#include <optional>
#include <stdexcept>
#include <utility>

namespace {

using Poco::XML::Node;
using Side = AttributeSyncPair::Side;

/// The elements of a document one after the other, whatever their depth.
class Elements {
public:
    explicit Elements(Poco::XML::Document& document)
        : m_iterator(&document, Poco::XML::NodeFilter::SHOW_ELEMENT), m_current(m_iterator.nextNode())
    {}

    bool atEnd() const { return !m_current; }
    bool is(const char* elementName) const { return m_current && m_current->nodeName() == elementName; }
    std::string text() const { return boost::algorithm::trim_copy(m_current->innerText()); }
    void next() { m_current = m_iterator.nextNode(); }

private:
    Poco::XML::NodeIterator m_iterator;
    const Node* m_current;
};

/// The text of the element `elementName`, which is then passed; none, and nothing passed, when another
/// one stands there.
std::optional<std::string> takeText(Elements& elements, const char* elementName)
{
    if (!elements.is(elementName))
        return std::nullopt;
    std::string text = elements.text();
    elements.next();
    return text;
}

/// What follows an attr1 or attr2. The first element that is none of it is left to the caller.
std::optional<Side> takeSide(Elements& elements)
{
    auto dn = takeText(elements, "fdn");
    auto attribute = dn ? takeText(elements, "attrName") : std::nullopt;
    if (!attribute || dn->empty() || attribute->empty())
        return std::nullopt;
    return Side{std::move(*dn), std::move(*attribute)};
}

void takePairs(Elements& elements, const AttributeSyncFile::TakePair& take)
{
    std::array<std::optional<Side>, 2> sides;
    while (!elements.atEnd()) {
        const bool first = elements.is("attr1");
        if (elements.is("attrSyncPair"))
            sides = {};
        if (!first && !elements.is("attr2")) {
            elements.next();
            continue;
        }
        elements.next();
        if (auto side = takeSide(elements))
            sides[first ? 0 : 1] = std::move(side);
        if (sides[0] && sides[1]) {
            take({{std::move(*sides[0]), std::move(*sides[1])}});
            sides = {};
        }
    }
}

} // namespace

bool AttributeSyncFile::read(const XmlFile& file, const TakePair& take)
{
    const auto document = file.parse(maxSize);
    Elements elements(*document);
    const auto pass = [&](const char* elementName) {
        if (!elements.is(elementName))
            throw std::runtime_error("Root node is not <AttrSyncPairs>");
        elements.next();
    };
    pass("AttrSyncPairs");
    if (elements.atEnd())
        return false;
    pass("syncPair");
    takePairs(elements, take);
    return true;
}
