#pragma once

#include <atomic>

/// The node's middleware: log, flash partitions, resets and the operation mode. Plain functions; a
/// status of 0 means success. On a workstation the node's state stands in the JSON file named by
/// TAMO_NODE_STATE (see docs/files.md); without it built-in defaults answer.

/// Module number of this service's log lines.
inline constexpr unsigned mwLogModule = 8;

enum MwLogLevel : unsigned { mwLogError = 2, mwLogWarning = 4, mwLogInfo = 8, mwLogDebug = 32 };

/// The partition that holds the golden software.
inline constexpr int goldenPartition = 4;

/// Writes one log line, whatever bytes the values hold. Every line of the service goes through here,
/// by way of the LOG_ macros of Log.h.
void mw_api_log_impl(unsigned module, unsigned level, int one, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// The flash partition the node started from.
int mw_api_pwr_started_partition_get(int* partition);
/// The partition a software fallback would start.
int mw_api_pwr_fallback_partition_get(int* partition);
/// Makes `partition` the one that is started next.
int mw_api_pwr_active_partition_set(int partition);
int mw_api_pwr_ubifs_mount(int partition);
/// Asks for a restart of the node; returns before it happens.
int mw_api_pwr_controlled_reset(int first, int second);
/// The reason of the last restart in the middleware's own numbering.
int mw_api_pwr_reset_reason_get(int* reason);
int mw_api_operation_mode_get(int which, int* mode);
int mw_api_operation_mode_set(int which, int mode);

namespace mw_log {

/// The highest level that is written; lines above it cost one comparison.
extern std::atomic<unsigned> threshold;

inline bool enabled(unsigned level) { return level <= threshold.load(std::memory_order_relaxed); }

} // namespace mw_log
