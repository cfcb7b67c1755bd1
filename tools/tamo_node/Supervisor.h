#pragma once

#include "NodeLayout.h"
#include "NodeRecord.h"
#include "ServiceProcess.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/// The process behind a node that is up: starts tamo_db, stands in for fault management and the reset
/// service, records what they are told, and ends tamo_db in order when it is told to end (SIGTERM,
/// SIGINT, SIGHUP).
class Supervisor {
public:
    struct Options {
        std::string program;                   ///< tamo_db
        std::chrono::seconds readyTimeout{30}; ///< from the start to a true answer to order-ready
        std::chrono::seconds stopTimeout{10};  ///< from SIGTERM to SIGKILL
        std::string isolation;                 ///< for the record
    };
    /// Hears once whether the node came up: an empty text, or why not.
    using StartReport = std::function<void(const std::string& problem)>;

    Supervisor(NodeLayout layout, Options options, StartReport report);
    ~Supervisor();

    /// Boots the node and returns when it is gone. The caller holds the node's lock. True when it came
    /// up and was ended in order.
    bool run();

private:
    using Clock = std::chrono::steady_clock;
    struct Platform; // the nodes that stand in for others, and what they hear

    bool boot(std::string& problem);
    void loop(int signals);
    int nextTimeout() const;
    void takeSignals(int signals);
    void takeMessages();
    void askWhetherReady();
    void nowReady();
    void stopService(const std::string& why);
    void serviceEnded();
    void startFailed(const std::string& problem);
    void save();

    NodeLayout m_layout;
    Options m_options;
    StartReport m_report;
    NodeRecord m_record;
    ServiceProcess m_service;
    std::unique_ptr<Platform> m_platform;
    Clock::time_point m_startDeadline;
    Clock::time_point m_nextQuestion;
    Clock::time_point m_killTime;
    bool m_killed = false;
};
