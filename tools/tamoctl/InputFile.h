#pragma once

#include <cstdint>
#include <memory>
#include <string>

class Interruption;

/// A text file, or standard input for the name "-", taken line by line.
class InputFile {
public:
    /// Throws a Failure (usage) when the file cannot be read. With `interruption`, which must outlive
    /// this, a wait for the next line ends at a signal.
    explicit InputFile(const std::string& path, const Interruption* interruption = nullptr);
    ~InputFile();

    /// The next line that is not blank. False at the end; throws a Failure (usage) when reading fails,
    /// or (interrupted) at a signal.
    bool nextLine(std::string& line);
    std::uint64_t lineNumber() const { return m_lineNumber; } ///< of the last line given, from 1
    std::uint64_t bytesRead() const { return m_bytesRead; }
    std::uint64_t size() const { return m_size; } ///< in bytes; 0 when it is not known
    const std::string& name() const { return m_name; }

private:
    struct Source;
    bool takeLine(std::string& line);
    bool readMore();

    std::string m_name;
    const Interruption* m_interruption;
    std::shared_ptr<Source> m_source;
    std::uint64_t m_size = 0;
    std::uint64_t m_bytesRead = 0;
    std::uint64_t m_lineNumber = 0;
};
