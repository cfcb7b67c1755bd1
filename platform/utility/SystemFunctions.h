#pragma once

#include <cstdint>
#include <string>

/// Small services of the node's utility library.

/// Installs the crash handler: a backtrace on standard error, then the signal's default action.
void RegisterSegmentFaultHandler();

/// The value of an environment variable, or `fallback` when it is not set.
std::string getPath(const char* variable, const std::string& fallback);

/// The directory of a flash partition's configuration area: <TAMO_CONFIG_PARTITIONS>/<partition>, below
/// /mnt/configpartition when the variable is not set.
std::string getConfigPartitionPath(int partition);

/// Runs a command line with the shell, in `directory` when that exists. Returns the exit status (128 and
/// the signal's number for a command that a signal ended), -1 when it could not be run. `component` and `wait` are the
/// platform's; a workstation always waits. Words that name a file below TAMO_NODE_ROOT, which stands in for the
/// node's root directory, are taken from there.
int executeCmd(int component, const std::string& commandLine, const std::string& directory, bool wait);

/// Returns when everything written so far is on the medium: what a power cut later leaves untouched. Use it
/// wherever a file must survive; a bare sync() is one that the simulated node cannot see.
void flushFileSystems();

/// The name of a TamoResetReason code, "unknown" for one that has none.
const char* tamoResetReasontoString(std::int32_t reason);
