// The verbs about the service itself: ready, ping.

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <numeric>

namespace {

void addReady(CLI::App& app, Action& chosen)
{
    app.add_subcommand("ready", "Tell whether the service has completed its start")->callback([&chosen] {
        chosen = [](Context& context) {
            if (!context.database().ready())
                throw Failure(ExitCode::refused, "the service is not ready yet");
            context.printDone("ready");
        };
    });
}

/// Round trips of a request that reads next to nothing, in microseconds.
std::vector<double> roundTrips(Database& database, int count)
{
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        const auto start = std::chrono::steady_clock::now();
        database.exists("ManagedElement=1");
        times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    return times;
}

void ping(Context& context, int count)
{
    std::vector<double> times = roundTrips(context.database(), count);
    std::sort(times.begin(), times.end());
    const double mean = std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
    char text[160];
    std::snprintf(text, sizeof text,
                  context.json()
                      ? R"({"requests": %d, "min_us": %.1f, "mean_us": %.1f, "p50_us": %.1f, "max_us": %.1f})"
                      : "%d requests answered: min %.1f, mean %.1f, median %.1f, max %.1f µs",
                  count, times.front(), mean, times[times.size() / 2], times.back());
    context.print(text);
}

void addPing(CLI::App& app, Action& chosen)
{
    auto count = std::make_shared<int>(5);
    CLI::App* verb = app.add_subcommand("ping", "Measure how fast the service answers");
    verb->add_option("-n", *count, "Number of requests (default: 5)")->check(CLI::Range(1, 10000000));
    verb->callback([count, &chosen] { chosen = [count](Context& context) { ping(context, *count); }; });
}

} // namespace

void addServiceVerbs(CLI::App& app, Action& chosen)
{
    addReady(app, chosen);
    addPing(app, chosen);
}
