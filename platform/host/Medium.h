#pragma once

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// What the storage of a simulated node holds for certain, kept beside the files of the node: a copy of each
/// as it was when it was last synchronised. A power cut looks there for what it may take away.
///
/// The copies stand in the directory named by TAMO_NODE_MEDIUM. It mirrors its parent directory, as far as
/// its own top level has directories of the same name: <node>/medium/flash mirrors <node>/flash. A process
/// with that variable keeps the copies up to date in flushFileSystems() and, for single files, in fsync()
/// and fdatasync(), which this library supplies; SQLite's go there, too.
class Medium {
public:
    /// One file's copy.
    struct Entry {
        ino_t inode = 0; ///< of the file that was copied; another one now means that it was replaced
        off_t size = 0;
        std::int64_t changed = 0; ///< its modification time, nanoseconds
        std::int64_t copied = 0;  ///< when, nanoseconds
    };
    using Index = std::map<std::string, Entry>; ///< by path below the mirrored directory

    /// The medium named by TAMO_NODE_MEDIUM, none without the variable.
    static std::optional<Medium> ofThisNode();
    explicit Medium(std::string directory);

    /// Takes every mirrored file as it is now. False, with an error line, when that was not possible.
    bool settleAll() const;
    /// Takes one file, or what a directory lists, as it is now. Paths that are not mirrored are ignored.
    bool settle(const std::string& path) const;

    /// The mirrored files there are now, by path below the mirrored directory, sorted.
    std::vector<std::string> files() const;
    /// What is known of the copies.
    Index index() const;
    std::string mirrored(const std::string& relative) const { return m_node + '/' + relative; }
    std::string copy(const std::string& relative) const { return m_directory + '/' + relative; }

private:
    std::vector<std::string> trees() const;
    std::optional<std::string> relativeTo(const std::string& path) const;
    bool take(const std::string& relative, Index& index, std::string& problem) const;
    bool change(const std::string& what, bool (Medium::*step)(const std::string&, Index&, std::string&) const) const;
    bool takeAll(const std::string&, Index& index, std::string& problem) const;
    bool takeOne(const std::string& path, Index& index, std::string& problem) const;
    bool takeListing(const std::string& relative, Index& index, std::string& problem) const;

    std::string m_directory;
    std::string m_node; ///< its parent
};
