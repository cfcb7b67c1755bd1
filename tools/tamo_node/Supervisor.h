#pragma once

#include "NodeLayout.h"
#include "NodeRecord.h"
#include "ServiceProcess.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class StandIns;
struct OperatorOrder;
struct RawMessage;

/// The process behind a node that is up: boots tamo_db, stands in for fault management and the reset
/// service, carries out resets and power cuts, and ends tamo_db in order when it is told to end (SIGTERM,
/// SIGINT, SIGHUP).
///
/// Whatever ends tamo_db, the node boots again: the active partition, or what chooseBoot makes of it.
class Supervisor {
public:
    struct Options {
        std::string program;                   ///< tamo_db
        std::chrono::seconds readyTimeout{30}; ///< from the start to a true answer to order-ready
        std::chrono::seconds stopTimeout{10};  ///< from SIGTERM to SIGKILL
        std::string isolation;                 ///< "private" when the node has a /tmp of its own
        std::vector<std::string> keep;         ///< see NodeLayout::clearVolatile
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
    struct Sources;
    /// Why tamo_db is being ended, and what follows.
    struct Ending {
        std::string cause;
        std::optional<int> resetReason; ///< middleware numbering; none leaves it as it is
        bool powerCut = false;
        bool stayOff = false;
        std::uint64_t seed = 0;
    };

    void switchOn();
    bool boot();
    bool start(int partition, std::string& problem);
    void supervise(const Sources& sources);
    void takeSignals(int signals);
    void takeStateChanges(int changes);
    void takeOrders();
    void takeMessages();
    void takeMessage(const RawMessage& raw);
    void askWhetherReady();
    void nowReady();
    void order(NodeRecord::Reset reset, int resetReason);
    void orderByOperator(const OperatorOrder& wanted);
    void cutPower(const OperatorOrder& order);
    void switchOff(const std::string& why);
    void end(const Ending& ending);
    void stopService(const char* state, const std::string& why);
    void killWhatDoesNotEnd();
    void serviceEnded();
    void loseWrites(std::uint64_t seed);
    void switchedOff();
    void powerStaysOff();
    void over(const std::string& state, const std::string& problem);
    void save();

    NodeLayout m_layout;
    Options m_options;
    StartReport m_report;
    bool m_reported = false;
    NodeRecord m_record;
    ServiceProcess m_service;
    std::unique_ptr<StandIns> m_standIns;
    std::optional<Ending> m_ending; ///< under way, and then why the next boot happens
    bool m_switchingOff = false;
    bool m_killed = false;
    std::size_t m_ordersSeen = 0; ///< of the state file's controlled resets
    Clock::time_point m_startDeadline;
    Clock::time_point m_nextQuestion;
    Clock::time_point m_killTime;
};
