#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What each verb does; all return the exit code and have told the user why when it is not 0. `directory`
/// is the node's.

struct UpOptions {
    std::string directory;
    std::string program;
    std::string conf;      ///< the directory of the files to install; empty: beside the program's
    int readyTimeout = 30; ///< seconds, of each boot
    int stopTimeout = 10;  ///< seconds
    bool foreground = false;
    bool shareTmp = false;
};
int up(UpOptions options);

int down(const std::string& directory);
int status(const std::string& directory);
int environment(const std::string& directory);

struct LogOptions {
    std::string directory;
    std::optional<std::size_t> lines; ///< only the last ones
    bool follow = false;              ///< until a signal
};
int log(const LogOptions& options);

struct ResetOptions {
    std::string directory;
    int reason = 6; ///< what the middleware tells the next start
    /// "A,B": as a controlled reset with these arguments; empty: none.
    std::string controlled;
    bool wait = true; ///< until the node is up again, or has given up
};
int reset(const ResetOptions& options);

struct PowerCutOptions {
    std::string directory;
    std::optional<std::uint64_t> seed; ///< none: any
    bool off = false;                  ///< the power does not come back
    bool wait = true;
};
int powerCut(const PowerCutOptions& options);

/// `assignments` are KEY=NUMBER; all or none are done.
int set(const std::string& directory, const std::vector<std::string>& assignments);

struct CorruptOptions {
    std::string directory;
    std::string file; ///< pRBSdb, commondb, backup, or a path below the directory
    std::string how;  ///< truncate, zero, flip or garbage
    std::optional<std::uint64_t> seed;
    std::optional<std::uint64_t> at; ///< the byte; none: any
};
int corrupt(const CorruptOptions& options);

int upgradeState(const std::string& directory, std::int32_t state);
/// Sends what the file ("-": standard input) describes; returns when the service has handled it.
int report(const std::string& directory, const std::string& file);

/// Messages of the middleware about the Wi-Fi module: one for each status, in one go. What is not given is
/// as the service expects it.
struct WifiOptions {
    std::string directory;
    std::vector<std::int32_t> statuses;
    std::optional<std::uint32_t> magic;
    std::optional<std::uint32_t> kind;
    std::optional<std::int32_t> statusId;
    std::optional<std::size_t> truncate; ///< to this many bytes
};
int wifi(const WifiOptions& options);
