#pragma once

#include <cstdint>
#include <string>

/// A copy of a database file, and of the journal beside it, in a directory of its own that goes with
/// it. The file itself is only read: SQLite would roll a journal back into it, and leave traces where
/// others work. While it is copied, commits of other processes wait.
class FileCopy {
public:
    /// Throws a Failure (usage) when there is nothing to copy from or no room to copy to, when another
    /// process does not give the file free, and when it is replaced again and again meanwhile.
    explicit FileCopy(const std::string& path);
    ~FileCopy();
    FileCopy(const FileCopy&) = delete;
    FileCopy& operator=(const FileCopy&) = delete;

    std::string path() const { return m_directory + "/copy"; }
    /// For what else is made on the way.
    std::string scratch() const { return m_directory + "/scratch"; }
    std::uint64_t size() const { return m_size; } ///< of the file, in bytes
    /// Bytes of the rollback journal or write-ahead log beside the file; SQLite applies it when it
    /// opens the copy, as it would with the file.
    std::uint64_t journalSize() const { return m_journalSize; }

private:
    void copyAll(const std::string& path);

    std::string m_directory;
    std::uint64_t m_size = 0;
    std::uint64_t m_journalSize = 0;
};
