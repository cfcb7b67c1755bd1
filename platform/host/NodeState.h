#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What a simulated node's middleware remembers from one start of the service to the next. It stands
/// in a JSON file, which the middleware functions, the simulated node and tests share.

/// What an operator wants of a running simulated node, written by a verb and carried out, and taken away,
/// by the node.
struct OperatorOrder {
    bool powerCut = false; ///< "power_cut": else a reset
    int reason = 6;        ///< "reason": what the middleware tells the next start; of a reset
    /// "controlled": the arguments of the controlled reset that this stands for.
    std::optional<std::pair<int, int>> controlled = {};
    bool stayOff = false;   ///< "stay_off": the power does not come back by itself
    std::uint64_t seed = 0; ///< "seed": decides what a power cut leaves of unsynchronised writes
};

struct NodeState {
    int startedPartition = 1;  ///< "started_partition": the node runs from it
    int activePartition = 1;   ///< "active_partition": the next start takes it
    int fallbackPartition = 2; ///< "fallback_partition"
    int resetReason = 6;       ///< "reset_reason", in the middleware's numbering; 6: the reset was ordered
    int operationMode = 0;     ///< "operation_mode"
    int moAccess = 1;          ///< "mo_access": 0: the management agent takes no subscription
    /// "boots_without_good_mark": of the started partition, the boot that is under way included.
    int unmarkedBoots = 0;
    /// "operator_order": absent when there is none.
    std::optional<OperatorOrder> order = {};
    /// "controlled_resets": the arguments of each controlled reset asked for, oldest first.
    std::vector<std::pair<int, int>> controlledResets;
    /// "ubifs_mounts": the partitions mounted, oldest first.
    std::vector<int> mounts;
};

/// Reads the file. A missing file, or key, leaves the defaults above. False, with `problem` saying
/// what and why, when the file cannot be read or a key holds something else than it should.
[[nodiscard]] bool readNodeState(const std::string& path, NodeState& state, std::string& problem);

/// Replaces the file as a whole: a reader sees the old or the new one. Keys that are not in NodeState
/// are lost.
[[nodiscard]] bool writeNodeState(const std::string& path, const NodeState& state, std::string& problem);

/// Reads, applies `change` and writes, with other writers of the same file kept out by a lock on
/// <path>.lock. Nothing is written when the file cannot be read.
[[nodiscard]] bool updateNodeState(const std::string& path, const std::function<void(NodeState&)>& change,
                                   std::string& problem);

/// Writes `content` beside `path` and renames it into place. Nothing but the old or the new file is
/// ever seen under the name. False, with `problem`, and the old file kept, when that fails.
[[nodiscard]] bool replaceFile(const std::string& path, const std::string& content, std::string& problem);
