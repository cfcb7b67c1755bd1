// XML files of others, read with distrust: what could hang the reader, follow a reference out of the file
// or fill the memory is refused before a tree is built. The readers of template, mapping and
// synchronisation files stand on it.

#include "platform/utility/XmlFile.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>
#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/InputSource.h>
#include <Poco/SAX/LexicalHandler.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>
#include <Poco/SAX/XMLReader.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <istream>
#include <streambuf>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Poco::XML;

bool isRegular(const struct stat& status) { return S_ISREG(status.st_mode); }

/// Looked at before it is opened, too: opening alone frees a writer that waits at a pipe, and rewinds a tape.
int openRegular(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !isRegular(status))
        return -1;
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0 || (fstat(file, &status) == 0 && isRegular(status)))
        return file;
    close(file); // it was replaced meanwhile
    return -1;
}

/// The whole file, wherever it was read to before. One that changes its size meanwhile is being written:
/// half of its old and half of its new content may well look like XML.
std::string contentOf(int file, std::size_t maxBytes)
{
    struct stat status {};
    if (fstat(file, &status) != 0)
        throw Poco::ReadFileException(std::strerror(errno));
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size > maxBytes)
        throw Poco::FileException(std::to_string(size) + " bytes, more than the " + std::to_string(maxBytes) +
                                  " that are read");
    std::string content(size + 1, '\0'); // one more byte than expected, to see that there is none
    std::size_t length = 0;
    while (length < content.size()) {
        const ssize_t got = pread(file, &content[length], content.size() - length, static_cast<off_t>(length));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw Poco::ReadFileException(std::strerror(errno));
        if (got == 0)
            break;
        length += static_cast<std::size_t>(got);
    }
    if (length != size)
        throw Poco::ReadFileException("the file changed its size while it was read");
    content.resize(size);
    return content;
}

/// Refuses elements that are nested too deep, and entities that swell to more than the file may hold.
class ShapeCheck : public DefaultHandler, public LexicalHandler {
public:
    explicit ShapeCheck(std::size_t maxText) : m_maxText(maxText) {}

    /// How often the parser has told something.
    std::size_t events() const { return m_events; }

    void comment(const XMLChar*, int, int length) override { count(static_cast<std::size_t>(length)); }
    void processingInstruction(const XMLString& target, const XMLString& data) override
    {
        count(target.size() + data.size());
    }
    void startDTD(const XMLString&, const XMLString&, const XMLString&) override {}
    void endDTD() override {}
    void startEntity(const XMLString&) override {}
    void endEntity(const XMLString&) override {}
    void startCDATA() override {}
    void endCDATA() override {}
    void characters(const XMLChar*, int, int length) override { count(static_cast<std::size_t>(length)); }
    void startElement(const XMLString&, const XMLString&, const XMLString& name, const Attributes& attributes) override
    {
        count(name.size() + std::strlen("</>")); // what an element takes in a file, at least
        if (++m_depth > XmlFile::maxDepth)
            throw SAXException("elements nested deeper than " + std::to_string(XmlFile::maxDepth));
        for (int i = 0; i < attributes.getLength(); ++i)
            count(attributes.getValue(i).size());
    }
    void endElement(const XMLString&, const XMLString&, const XMLString&) override { --m_depth; }

private:
    void count(std::size_t length)
    {
        ++m_events;
        m_text += length;
        if (m_text > m_maxText)
            throw SAXException("entities make more than " + std::to_string(m_maxText) + " bytes");
    }

    const std::size_t m_maxText;
    std::size_t m_depth = 0;
    std::size_t m_text = 0; // and the least that elements take
    std::size_t m_events = 0;
};

/// Hands a text to a parser in blocks, and ends when the parser has made nothing of too many of them: with
/// every block it looks at an open comment, tag or declaration from its beginning again, which takes
/// minutes where that is as long as the file.
class WatchedText : public std::streambuf {
public:
    static constexpr std::size_t maxToken = 64 * 1024;

    WatchedText(const std::string& text, const ShapeCheck& check) : m_text(text), m_check(check) {}
    bool gaveUp() const { return m_gaveUp; }

protected:
    int_type underflow() override
    {
        if (m_events != m_check.events()) {
            m_events = m_check.events();
            m_toldAt = m_next;
        }
        m_gaveUp = m_gaveUp || m_next - m_toldAt > maxToken;
        if (m_gaveUp || m_next == m_text.size())
            return traits_type::eof();
        constexpr std::size_t block = 4096;
        const std::size_t size = std::min(block, m_text.size() - m_next);
        char* const begin = const_cast<char*>(m_text.data()) + m_next; // only read
        setg(begin, begin, begin + size);
        m_next += size;
        return traits_type::to_int_type(*begin);
    }

private:
    const std::string& m_text;
    const ShapeCheck& m_check;
    std::size_t m_next = 0;
    std::size_t m_toldAt = 0; ///< what was handed out when the parser last told something
    std::size_t m_events = 0;
    bool m_gaveUp = false;
};

template <class Parser>
void followNoEntities(Parser& parser)
{
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_GENERAL_ENTITIES, false);
    parser.setFeature(XMLReader::FEATURE_EXTERNAL_PARAMETER_ENTITIES, false);
}

/// Without namespaces, which the depth does not depend on: it makes the pass cheaper.
void checkShape(const std::string& content, std::size_t maxBytes)
{
    ShapeCheck check(maxBytes);
    SAXParser parser;
    followNoEntities(parser);
    parser.setFeature(XMLReader::FEATURE_NAMESPACES, false);
    parser.setContentHandler(&check);
    parser.setProperty(XMLReader::PROPERTY_LEXICAL_HANDLER, static_cast<LexicalHandler*>(&check));
    WatchedText watched(content, check);
    std::istream stream(&watched);
    InputSource source(stream);
    try {
        parser.parse(&source);
    } catch (const Poco::Exception&) {
        if (!watched.gaveUp())
            throw;
        throw SAXException("a comment, tag or declaration of more than " + std::to_string(WatchedText::maxToken) +
                           " bytes");
    }
}

} // namespace

XmlFile::XmlFile(const std::string& path) : m_file(openRegular(path)) {}

XmlFile::~XmlFile()
{
    if (isOpen())
        close(m_file);
}

std::shared_ptr<Document> XmlFile::parse(std::size_t maxBytes) const
{
    const std::string content = contentOf(m_file, maxBytes);
    checkShape(content, maxBytes);
    DOMParser parser;
    followNoEntities(parser);
    Poco::AutoPtr<Document> document = parser.parseMemory(content.data(), content.size());
    return {document.duplicate(), [](Document* held) { held->release(); }};
}

std::string textOf(const std::exception& error)
{
    const auto* const poco = dynamic_cast<const Poco::Exception*>(&error);
    return poco ? poco->displayText() : error.what();
}
