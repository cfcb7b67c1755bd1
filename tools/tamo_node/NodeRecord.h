#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// What a supervisor tells about its node, kept in the node's status file and replaced as a whole.
struct NodeRecord {
    struct Fault {
        std::string time;
        int code = 0;
        bool raised = false;
    };
    struct Reset {
        std::string time;
        int reason = 0; ///< TamoResetReason numbering
        int second = 0;
    };

    std::string state = "starting"; ///< starting, up, stopping, down or failed
    pid_t pid = 0;                  ///< of tamo_db; 0 when it does not run
    pid_t supervisor = 0;
    std::string isolation; ///< "private", or "shared" and why
    std::string started;   ///< times are UTC, ISO 8601
    std::string ready;
    std::string ended;
    std::optional<int> exitCode; ///< of tamo_db, when it ended by itself
    std::optional<int> signal;   ///< that ended tamo_db
    std::string problem;         ///< why the state is failed
    std::vector<Fault> faults;   ///< every fault message, oldest first
    std::vector<Reset> resets;   ///< every reset request, oldest first
};

[[nodiscard]] bool writeRecord(const std::string& path, const NodeRecord& record, std::string& problem);

/// Nothing when the file is not there or is not a status file.
std::optional<NodeRecord> readRecord(const std::string& path);

/// The time now as the record holds it.
std::string timeNow();

/// "exit code 1", "signal 9 (Killed)", or "" while nothing ended.
std::string endingText(const NodeRecord& record);

/// What `tamo_node status` prints: the record, the faults that are still raised, and what the
/// middleware knows of the node, from its state file.
std::string statusText(const NodeRecord& record, const std::string& directory, const std::string& stateFile);
