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
    /// One order to reset the node.
    struct Reset {
        std::string time;
        std::string by;        ///< "middleware", "reset service" or "operator"
        std::string order;     ///< as it was given
        int reason = 0;        ///< TamoResetReason of a TAMO_ResetRBS, else the middleware's first argument or reason
        int second = 0;        ///< of a TAMO_ResetRBS, or the middleware's second argument
        bool repeated = false; ///< came while another was under way, and counts as that one
    };
    struct Boot {
        std::string time;
        int partition = 0;
        int resetReason = 0; ///< middleware numbering
        std::string cause;
        std::string good; ///< when it got its good mark; empty: not (yet)
    };

    std::string state = "starting"; ///< starting, up, resetting, stopping, down, off (power cut) or failed
    pid_t pid = 0;                  ///< of tamo_db; 0 when it does not run
    pid_t supervisor = 0;
    std::string isolation; ///< "private", or "shared" and why
    std::string started;   ///< times are UTC, ISO 8601
    std::string ready;
    std::string ended;
    std::optional<int> exitCode; ///< of the tamo_db that ended last, when no signal ended it
    std::optional<int> signal;   ///< that ended it
    std::string problem;         ///< why the state is failed
    std::vector<Fault> faults;   ///< every fault message, oldest first
    std::vector<Reset> resets;   ///< every order, oldest first
    std::vector<Boot> boots;     ///< since the node was switched on, oldest first
    int bootCount = 0;
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
