#pragma once

#include <string>
#include <utility>
#include <vector>

/// Where everything of one simulated node lies below its directory.
class NodeLayout {
public:
    /// `directory` is absolute, without links.
    explicit NodeLayout(std::string directory) : m_directory(std::move(directory)) {}

    const std::string& directory() const { return m_directory; }
    std::string sockets() const { return m_directory + "/run"; }
    std::string runtime() const { return m_directory + "/runtime"; }
    /// The flash of a partition: its permanent configuration.
    std::string flash(int partition) const { return m_directory + "/flash/" + std::to_string(partition); }
    /// Holds the configuration areas, one directory a partition.
    std::string configurationAreas() const { return m_directory + "/config"; }
    std::string configurationArea(int partition) const
    {
        return configurationAreas() + '/' + std::to_string(partition);
    }
    /// Shared by the partitions: facts about the node that outlive its configuration, and backups.
    std::string common() const { return m_directory + "/common"; }
    std::string backup() const { return m_directory + "/backup"; }
    /// Files that the service only reads.
    std::string conf() const { return m_directory + "/conf"; }
    /// What the storage holds of all these for certain; see platform/host/Medium.h.
    std::string medium() const { return m_directory + "/medium"; }
    /// Stands in for the node's root directory where commands name files in it.
    std::string root() const { return m_directory + "/root"; }
    std::string stateFile() const { return m_directory + "/state.json"; }
    std::string statusFile() const { return m_directory + "/status.json"; }
    std::string lockFile() const { return m_directory + "/node.lock"; }
    std::string log() const { return m_directory + "/log"; }
    /// What the node sees as /tmp when it has one of its own.
    std::string privateTmp() const { return m_directory + "/tmp"; }

    /// What the service and its clients find in their environment when `partition` is started.
    std::vector<std::pair<std::string, std::string>> environment(int partition) const;

    /// Makes the missing directories; false with a reason.
    [[nodiscard]] bool make(std::string& problem) const;
    /// Removes what a boot clears: sockets, the content of the runtime directory and, when the node has a /tmp
    /// and a /dev/shm of its own, theirs. `keep` lies in them by accident and is not the node's.
    [[nodiscard]] bool clearVolatile(bool ownTmp, const std::vector<std::string>& keep, std::string& problem) const;

private:
    std::string backupWork() const { return m_directory + "/backup/work"; }
    std::string dump() const { return m_directory + "/dump"; }

    std::string m_directory;
};
