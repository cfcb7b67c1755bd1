// tamo_load, the load client: how fast a running service answers, next to what the socket alone takes.

#include "platform/host/Frame.h"
#include "tools/client/ExitCode.h"
#include "tools/client/ServiceClient.h"
#include "tools/tamo_load/LoadRun.h"
#include "tools/tamo_load/RoundTrip.h"

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

namespace {

constexpr int roundTripRounds = 20000;

/// What an operation costs inside SQLite, measured for this schema at 10,000 objects of 10
/// attributes, and how many times (round trip + that) its p50 may take (docs/performance.md).
struct Aim {
    const char* name;
    double inside; ///< µs
    double limit;
};
constexpr std::array aims{Aim{"insert", 29, 2.3}, Aim{"fetch", 12.6, 1.6}, Aim{"update", 15, 2.5},
                          Aim{"children", 264, 1.6}};

const Aim* aimOf(const std::string& name)
{
    const auto* found = std::find_if(aims.begin(), aims.end(), [&name](const Aim& aim) { return name == aim.name; });
    return found == aims.end() ? nullptr : found;
}

/// How many times (round trip + time inside SQLite) the median takes.
std::optional<double> timesFloor(const Measurement& measured, double roundTrip)
{
    const Aim* aim = aimOf(measured.name);
    return aim ? std::optional(measured.percentile(50) / (roundTrip + aim->inside)) : std::nullopt;
}

/// The median over a tenth of the operations, the first (0) to the last (9): shows what grows.
double medianOfTenth(const Measurement& measured, std::size_t tenth)
{
    const auto size = static_cast<std::ptrdiff_t>(measured.times.size());
    const auto part = static_cast<std::ptrdiff_t>(tenth);
    const auto begin = measured.times.begin();
    return Measurement{"", {begin + size * part / 10, begin + size * (part + 1) / 10}, 0}.percentile(50);
}

/// How the figures of transactions and notifications compare with what they are made of.
struct Ratio {
    std::string text;
    double value;
    double limit;
};

std::vector<Ratio> changeRatios(const LoadOptions& options, const std::vector<Measurement>& all)
{
    constexpr double hundredUpdates = 800; // µs in one SQLite transaction, in-process
    constexpr double oneSend = 8;          // µs for a notification over a local socket,
    constexpr double eachSend = 2;         // and for each of many on sockets of their own
    const auto find = [&all](const std::string& name) -> const Measurement& {
        return *std::find_if(all.begin(), all.end(), [&](const Measurement& each) { return each.name == name; });
    };
    if (options.subscribers == 0)
        return {};
    const double update = find("update").percentile(50);
    const std::string many =
        "told, " + std::to_string(options.subscribers) + (options.subscribers == 1 ? " subscriber" : " subscribers");
    return {
        {"commit of 100 updates / in-process", find("commit of 100 updates").percentile(50) / hundredUpdates, 2},
        {"told, 1 subscriber / (update + a send)", find("told, 1 subscriber").percentile(50) / (update + oneSend), 2.5},
        {many + " / (update + the sends)", find(many).percentile(50) / (update + eachSend * options.subscribers), 2},
        {"p99 of requests beside a stuck subscriber / without",
         find("requests, 1 stuck").percentile(99) / find("requests").percentile(99), 1.5}};
}

void printTable(const LoadOptions& options, const Measurement& roundTrip, const std::vector<Measurement>& all)
{
    const double plain = roundTrip.percentile(50);
    std::printf("%d objects of %d attributes, %d client%s\n\n", options.objects, attributesPerObject, options.clients,
                options.clients == 1 ? "" : "s");
    std::printf("%-22s %9s %10s %10s %10s %12s %18s\n", "", "count", "ops/s", "p50 us", "p99 us", "x socket",
                "x (socket+SQLite)");
    std::printf("%-22s %9zu %10.0f %10.1f %10.1f\n", "plain socket", roundTrip.times.size(),
                roundTrip.operationsPerSecond(), plain, roundTrip.percentile(99));
    for (const Measurement& measured : all) {
        std::printf("%-22s %9zu %10.0f %10.1f %10.1f %12.1f", measured.name.c_str(), measured.times.size(),
                    measured.operationsPerSecond(), measured.percentile(50), measured.percentile(99),
                    measured.percentile(50) / plain);
        if (const auto floor = timesFloor(measured, plain))
            std::printf(" %10.2f (<%.1f)", *floor, aimOf(measured.name)->limit);
        std::printf("\n");
    }
    for (const Ratio& ratio : changeRatios(options, all))
        std::printf("%-52s %8.2f (<%.1f)\n", ratio.text.c_str(), ratio.value, ratio.limit);
    if (options.clients == 1)
        std::printf("\ninsert p50 of the first tenth %.1f us, of the last tenth %.1f us\n",
                    medianOfTenth(all.front(), 0), medianOfTenth(all.front(), 9));
}

nlohmann::ordered_json toJson(const Measurement& measured, double plain)
{
    nlohmann::ordered_json json = {{"count", measured.times.size()},
                                   {"ops_per_second", measured.operationsPerSecond()},
                                   {"p50_us", measured.percentile(50)},
                                   {"p99_us", measured.percentile(99)},
                                   {"times_socket", measured.percentile(50) / plain}};
    if (const auto floor = timesFloor(measured, plain))
        json["times_socket_and_sqlite"] = *floor;
    return json;
}

void printJson(const LoadOptions& options, const Measurement& roundTrip, const std::vector<Measurement>& all)
{
    const double plain = roundTrip.percentile(50);
    nlohmann::ordered_json json = {{"objects", options.objects},
                                   {"attributes", attributesPerObject},
                                   {"clients", options.clients},
                                   {"socket", toJson(roundTrip, plain)}};
    for (const Measurement& measured : all)
        json[measured.name] = toJson(measured, plain);
    for (const Ratio& ratio : changeRatios(options, all))
        json["ratios"][ratio.text] = ratio.value;
    json["insert"]["first_tenth_p50_us"] = medianOfTenth(all.front(), 0);
    json["insert"]["last_tenth_p50_us"] = medianOfTenth(all.front(), 9);
    std::cout << json.dump() << '\n';
}

ExitCode run(int argc, char** argv)
{
    LoadOptions options;
    bool json = false;
    options.directory = TAMO::Wire::frameworkDirectory();
    CLI::App app("Measures how fast a running database service answers.", "tamo_load");
    app.add_option("--dir", options.directory, "Directory of the node's sockets (default: TAMO_FRAMEWORK_DIR)");
    app.add_option("--clients", options.clients, "Clients at work at once (default: 1)")->check(CLI::Range(1, 256));
    app.add_option("--objects", options.objects, "Objects to insert (default: 10000)")->check(CLI::Range(1, 10000000));
    app.add_option("--samples", options.samples,
                   "Fetches and updates; listings and transactions a tenth of it (default: 2000)")
        ->check(CLI::Range(1, 10000000));
    app.add_option("--subscribers", options.subscribers,
                   "Also measure transactions and notifications, to one and to this many subscribers (default: 0)")
        ->check(CLI::Range(0, 200));
    app.add_option("--timeout", options.timeout, "Seconds to wait for each answer (default: 60)")
        ->check(CLI::Range(0.001, 3600.0));
    app.add_flag("--keep", options.keep, "Leave the inserted objects in the database");
    app.add_flag("--json", json, "Write the figures as JSON");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitCode::success : ExitCode::usage;
    }
    const Measurement roundTrip = measureRoundTrip(roundTripRounds);
    const auto measured = runLoad(options);
    json ? printJson(options, roundTrip, measured) : printTable(options, roundTrip, measured);
    return ExitCode::success;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return static_cast<int>(run(argc, argv));
    } catch (const ClientError& error) {
        std::cerr << "tamo_load: " << error.what() << '\n';
        return static_cast<int>(exitCodeOf(error.kind));
    } catch (const std::exception& error) {
        std::cerr << "tamo_load: " << error.what() << '\n';
        return static_cast<int>(ExitCode::refused);
    }
}
