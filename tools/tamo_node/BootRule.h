#pragma once

struct NodeState;

/// What the node's boot loader goes by.

/// Boots of a partition that may end without a good mark.
inline constexpr int mostUnmarkedBoots = 3;

/// The middleware's numbering of reset reasons, as far as the simulated node gives them.
inline constexpr int reasonPowerOn = 0;
inline constexpr int reasonWatchdog = 3;
inline constexpr int reasonSoftwareFailure = 5;
inline constexpr int reasonOrdered = 6;
inline constexpr int reasonBootFailed = 9;

bool isPartition(int number);

/// Makes `state` that of the next boot: of the active partition, and when that one has used up its boots
/// without a good mark, of the fallback partition, and then of golden, with the reason reasonBootFailed. The
/// partition that is booted is never its own fallback: golden is. False when golden has used up its boots,
/// too; nothing is changed then.
[[nodiscard]] bool chooseBoot(NodeState& state);
