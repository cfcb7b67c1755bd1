#pragma once

#include <string>
#include <sys/types.h>

/// The permanent configuration that a store is about to replace, kept as NAME.previous until the new
/// one is on the medium: `cp` empties a file before it writes, and a power cut in between would leave
/// a node without any configuration. Where the flash has no room for both, and where the name is a
/// link, nothing is kept and the file is overwritten in place.
class PreviousConfiguration {
public:
    /// `newSize` is that of the new content, in bytes.
    PreviousConfiguration(const std::string& file, off_t newSize);
    /// Puts the old file back, unless it was dropped.
    ~PreviousConfiguration();
    PreviousConfiguration(const PreviousConfiguration&) = delete;
    PreviousConfiguration& operator=(const PreviousConfiguration&) = delete;

    /// The new file is on the medium: gives it the old one's mode, and removes that.
    void drop();

    /// For a start: when a store was interrupted, the configuration before it counts.
    static void takeBack(const std::string& file);

private:
    const std::string m_file;
    bool m_kept = false;
    mode_t m_mode = 0;
};
