// The verb down: ends a node in order and returns when it is gone.
#include "Access.h"
#include "NodeLock.h"
#include "Verbs.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

int down(const std::string& directory)
{
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    const auto before = currentRecord(*layout);
    const pid_t holder = supervisorOf(*layout);
    const bool told = holder != 0 && NodeLock::signalHolder(layout->lockFile(), SIGTERM);
    if (const int why = errno; !told && holder != 0 && NodeLock::holder(layout->lockFile()) == holder)
        return fail("cannot signal the supervisor (process " + std::to_string(holder) + "): " + std::strerror(why));
    if (!told)
        return fail("the node in " + layout->directory() + " is not up" +
                    (before && !before->problem.empty() ? ": " + before->problem : ""));
    // The supervisor kills what does not end; this deadline is for a supervisor that is stuck itself.
    if (!await(std::chrono::seconds(120), [&] { return NodeLock::holder(layout->lockFile()) != holder; }))
        return fail("the supervisor (process " + std::to_string(holder) + ") does not end");
    const auto after = currentRecord(*layout);
    if (!after || after->state != "down")
        return fail("the node in " + layout->directory() +
                    " is down, but not in order: " + (after ? after->problem : "its status file is gone"));
    std::printf("node in %s is down\n", layout->directory().c_str());
    return exitSuccess;
}
