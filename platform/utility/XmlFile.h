#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <string>

namespace Poco::XML {
class Document;
}

/// An XML file that somebody else wrote, opened for reading. Directories, named pipes and devices are not
/// opened: a reader could wait for them for ever.
class XmlFile {
public:
    /// Elements nested deeper are refused: a tree of them could not even be taken down again.
    static constexpr std::size_t maxDepth = 256;

    explicit XmlFile(const std::string& path);
    ~XmlFile();
    XmlFile(const XmlFile&) = delete;
    XmlFile& operator=(const XmlFile&) = delete;

    bool isOpen() const { return m_file >= 0; }

    /// The file's tree. Size, depth, the length of single tags, comments and declarations, and what entities
    /// swell to are checked before it is built; external entities are not followed. Throws a Poco::Exception that says
    /// what is wrong, also for a file of more than `maxBytes` bytes, one that is being written and one that cannot be
    /// read.
    std::shared_ptr<Poco::XML::Document> parse(std::size_t maxBytes) const;

private:
    int m_file;
};

/// What is wrong, in words: of a Poco::Exception its whole text, which what() leaves out.
std::string textOf(const std::exception& error);
