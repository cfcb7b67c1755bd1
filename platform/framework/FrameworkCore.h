#pragma once

#include <string>
#include <vector>

namespace TAMO::Framework {

/// The process's place in the framework: its signals and its active objects.
class FrameworkCore {
public:
    /// From here on SIGTERM and SIGINT post event 1006 to every active state machine, also to those
    /// that are made later; a second signal ends the process at once.
    void initialize();
    void finalize();
};

namespace Control {

class FrameworkControl {
public:
    /// Brings up this process's node from an ordered list such as {"--node", "db", "--connect", "fm"}:
    /// listens on <TAMO_FRAMEWORK_DIR>/<node>.sock and keeps connections to the nodes named after
    /// --connect. False, with an error line, when the node cannot listen.
    [[nodiscard]] static bool initialize(const std::vector<std::string>& options);
    static void finalize();
};

} // namespace Control

} // namespace TAMO::Framework
