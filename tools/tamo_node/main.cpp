// tamo_node: a simulated node on a workstation. The command line is here; the verbs are in files of their
// names, and a node that is up is a supervisor process (Supervisor.cpp) and the tamo_db it started.
#include "Access.h"
#include "Verbs.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <limits>

namespace {

const CLI::Range notNegative(std::int64_t{0}, std::numeric_limits<std::int64_t>::max());

/// The verbs on a command line; each leaves what is to be done in `chosen`.
class CommandLine {
public:
    explicit CommandLine(CLI::App& app) : m_app(app)
    {
        app.require_subcommand(1);
        addLifeVerbs();
        addLookVerbs();
        addFaultVerbs();
        addStateVerbs();
        addWifiVerb();
    }
    int run() const { return m_chosen(); }

private:
    CLI::App* verb(const char* name, const char* help, std::string& directory, const std::function<int()>& action)
    {
        auto* command = m_app.add_subcommand(name, help);
        command->add_option("DIR", directory, "The node's directory")->required();
        command->callback([this, action] { m_chosen = action; });
        return command;
    }
    void addLifeVerbs();
    void addLookVerbs();
    void addFaultVerbs();
    void addStateVerbs();
    void addWifiVerb();

    CLI::App& m_app;
    std::function<int()> m_chosen;
    std::string m_directory;
    UpOptions m_up;
    LogOptions m_log;
    ResetOptions m_reset;
    PowerCutOptions m_powerCut;
    CorruptOptions m_corrupt;
    std::vector<std::string> m_assignments;
    std::int32_t m_upgradeState = 0;
    std::string m_report;
    WifiOptions m_wifi;
};

void CommandLine::addLifeVerbs()
{
    auto* boot = verb("up", "Boots the node; returns when it is ready, the node goes on (log: DIR/log)", m_up.directory,
                      [this] { return up(m_up); });
    boot->add_flag("--foreground", m_up.foreground, "Stay, print events, end the node in order on Ctrl-C");
    boot->add_option("--timeout", m_up.readyTimeout, "Seconds until a boot must be ready")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    boot->add_option("--stop-timeout", m_up.stopTimeout, "Seconds until a service that does not end is killed")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    boot->add_option("--tamo-db", m_up.program, "The service to start (default: beside tamo_node)");
    boot->add_option("--conf", m_up.conf,
                     "Directory of the *.xml files that DIR/conf gets where it has none of that name (default: conf "
                     "beside the service's directory)");
    boot->add_flag("--shared-tmp", m_up.shareTmp, "No private /tmp and /dev/shm");
    verb("down", "Ends the node in order and returns when it is gone", m_directory,
         [this] { return down(m_directory); });
}

void CommandLine::addLookVerbs()
{
    verb("status", "Prints what is known of the node as JSON", m_directory, [this] { return status(m_directory); });
    verb("env", "Prints the node's environment as shell assignments: eval $(tamo_node env DIR)", m_directory,
         [this] { return environment(m_directory); });
    auto* look = verb("log", "Prints the node's log", m_log.directory, [this] { return log(m_log); });
    look->add_option("--lines", m_log.lines, "Only the last N lines")->check(notNegative);
    look->add_flag("--follow", m_log.follow, "Go on with what is added, until Ctrl-C");
}

void CommandLine::addFaultVerbs()
{
    auto* restart = verb("reset", "Resets the node and returns when it is up again", m_reset.directory,
                         [this] { return reset(m_reset); });
    restart->add_option("--reason", m_reset.reason, "Reset reason that the middleware gives afterwards")
        ->capture_default_str();
    restart->add_option("--controlled", m_reset.controlled, "A,B: as a controlled reset with these arguments");
    restart->add_flag("!--no-wait", m_reset.wait, "Return at once");

    auto* cut =
        verb("power-cut", "Takes the node's power away for a moment: writes that were not synchronised are lost",
             m_powerCut.directory, [this] { return powerCut(m_powerCut); });
    cut->add_option("--seed", m_powerCut.seed, "Decides what is lost (default: any, printed)")->check(notNegative);
    cut->add_flag("--off", m_powerCut.off, "The power does not come back until `up`");
    cut->add_flag("!--no-wait", m_powerCut.wait, "Return at once");

    auto* damage =
        verb("corrupt", "Damages a file of the node", m_corrupt.directory, [this] { return corrupt(m_corrupt); });
    damage
        ->add_option("FILE", m_corrupt.file, "pRBSdb (of the active partition), commondb, backup, or a path below DIR")
        ->required();
    damage->add_option("--how", m_corrupt.how, "The kind of damage")
        ->required()
        ->check(CLI::IsMember({"truncate", "zero", "flip", "garbage"}));
    damage->add_option("--seed", m_corrupt.seed, "Decides where (default: any, printed)")->check(notNegative);
    damage->add_option("--at", m_corrupt.at, "The byte to cut or damage at (default: any)")->check(notNegative);
}

void CommandLine::addStateVerbs()
{
    verb("set", "Changes what the node's middleware tells: KEY=NUMBER...", m_directory,
         [this] { return set(m_directory, m_assignments); })
        ->add_option(
            "ASSIGNMENTS", m_assignments,
            "started_partition, active_partition, fallback_partition, reset_reason, operation_mode or mo_access")
        ->required();
    verb("upgrade-state", "Writes the state of UpgradePackage=1, as a software upgrade does", m_directory,
         [this] { return upgradeState(m_directory, m_upgradeState); })
        ->add_option("N", m_upgradeState, "The state")
        ->required();
    verb("report", "Tells the service of changed objects, as the management agent does", m_directory,
         [this] { return report(m_directory, m_report); })
        ->add_option("FILE", m_report, "The report as JSON (docs/clients.md); -: standard input")
        ->required();
}

void CommandLine::addWifiVerb()
{
    auto* wifiModule =
        verb("wifi",
             "Tells the service states of the Wi-Fi module, as the middleware does: WifiModule=1 shows the first at "
             "once and the last of a burst within a second",
             m_wifi.directory, [this] { return wifi(m_wifi); });
    wifiModule->add_option("STATUS", m_wifi.statuses, "Operational states, a message each")->required();
    wifiModule->add_option("--magic", m_wifi.magic, "Another magic word than 0xEB1CBABE");
    wifiModule->add_option("--kind", m_wifi.kind,
                           "Another message kind than 2: 0 alarm, 1 alive, 3 indication, others unknown");
    wifiModule->add_option("--status-id", m_wifi.statusId, "Another status id than 1");
    wifiModule->add_option("--truncate", m_wifi.truncate, "Only the first BYTES of each message's 36")
        ->check(notNegative)
        ->type_name("BYTES");
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"A simulated node in a directory: boots tamo_db with everything around it.", "tamo_node"};
    const CommandLine line(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitSuccess : exitUsage;
    }
    return line.run();
}
