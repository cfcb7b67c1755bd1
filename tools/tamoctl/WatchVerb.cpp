// The verb watch: subscribes, writes a line for each notification, and takes the subscriptions back
// however it ends. The service keeps a subscription when its client is gone, and would go on sending
// to whoever comes next with the same node id.

#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/Interruption.h"
#include "tools/tamoctl/NotificationText.h"
#include "tools/tamoctl/TextCoding.h"
#include "tools/tamoctl/Verbs.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <poll.h>
#include <unistd.h>

using TAMO::Messages::TAMO_DBNotification;

namespace {

const std::map<std::string, std::int32_t> operationCodes{
    {"insert", changeInsert}, {"update", changeUpdate}, {"delete", changeDelete}};
const std::map<std::string, std::int32_t> forAllKinds{{"every", 1}, {"mom", 2}, {"other", 3}};

/// A year; far beyond it the clock would overflow.
constexpr double longestWatch = 86400.0 * 365;

struct WatchArguments {
    std::vector<std::string> keys;
    std::string dn, moClass, attribute, operation, all;
    std::int32_t instance = 0;
    bool withAlternate = false;
    bool transactions = false;
    std::uint64_t count = 0; ///< 0: no limit
    double timeout = 0;      ///< seconds; 0: no limit
};

[[noreturn]] void refuse(const std::string& why) { throw Failure(ExitCode::usage, why); }

/// Refuses what the service would accept and never match.
void checkCombination(const WatchArguments& arguments)
{
    if (!arguments.dn.empty() && !arguments.moClass.empty())
        refuse("--dn and --class are two ways to say what to watch; one of them is enough");
    if (arguments.dn.empty() && (!arguments.attribute.empty() || arguments.instance > 0))
        refuse((arguments.attribute.empty() ? "--instance" : "--attribute " + arguments.attribute) +
               std::string(" needs --dn: a class is watched as a whole"));
    if (!arguments.operation.empty() && arguments.attribute.empty())
        refuse("--operation needs --attribute (and --dn): it tells operations on an attribute apart");
    if (arguments.withAlternate && arguments.dn.empty() && arguments.moClass.empty() && arguments.all.empty())
        refuse("--with-alternate needs --dn, --class or --all; a KEY says it with \",1\" at its end");
}

SubscriptionKey objectKey(const WatchArguments& arguments)
{
    SubscriptionKey key;
    key.dn = arguments.dn.empty() ? arguments.moClass : checkedDn(arguments.dn);
    std::erase(key.dn, '"'); // the service compares with DNs that have none
    key.attribute = arguments.attribute;
    key.instance = arguments.instance > 0 ? arguments.instance : key.attribute.empty() ? 0 : 1;
    if (!arguments.operation.empty())
        key.operation = operationCodes.at(arguments.operation);
    key.withAlternate = arguments.withAlternate ? 1 : 0;
    return key;
}

SubscriptionKey keyFromText(const std::string& text)
{
    const auto key = SubscriptionKey::fromText(text);
    if (!key)
        refuse("\"" + printable(text) +
               "\" is not a subscription key: DN,INSTANCE,ATTRIBUTE,OPERATION, or ,,,,KIND (either with ,1 behind it), "
               "or TRANSACTIONS");
    if (const std::string why = key->whyItNeverMatches(); !why.empty())
        std::cerr << "tamoctl: warning: the key " << printable(text) << " never matches: " << why << '\n';
    return *key;
}

/// All keys asked for, each once: a second registration would bring everything twice.
std::vector<SubscriptionKey> keysOf(const WatchArguments& arguments)
{
    checkCombination(arguments);
    std::vector<SubscriptionKey> keys;
    const auto add = [&keys](SubscriptionKey key) {
        const std::string text = key.text();
        if (std::none_of(keys.begin(), keys.end(), [&](const auto& known) { return known.text() == text; }))
            keys.push_back(std::move(key));
    };
    for (const std::string& text : arguments.keys)
        add(keyFromText(text));
    if (!arguments.dn.empty() || !arguments.moClass.empty())
        add(objectKey(arguments));
    if (!arguments.all.empty()) {
        SubscriptionKey key;
        key.forAll = forAllKinds.at(arguments.all);
        key.withAlternate = arguments.withAlternate ? 1 : 0;
        add(key);
    }
    if (arguments.transactions) {
        SubscriptionKey key;
        key.transactions = true;
        add(key);
    }
    if (keys.empty())
        refuse("nothing to watch: give a KEY, --dn, --class, --all or --transactions");
    return keys;
}

/// The subscriptions of a watch, taken back at its end.
class Subscriptions {
public:
    Subscriptions(Context& context, const std::vector<SubscriptionKey>& keys) : m_database(context.database())
    {
        try {
            subscribe(context, keys);
        } catch (...) {
            abandon();
            throw;
        }
    }
    ~Subscriptions() { abandon(); }
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    /// None for a ticket of somebody else who had our node id.
    const SubscriptionKey* find(std::int32_t ticket) const
    {
        const auto found = m_keys.find(ticket);
        return found == m_keys.end() ? nullptr : &found->second;
    }
    void end()
    {
        while (!m_keys.empty()) {
            m_database.unsubscribe(m_keys.begin()->first);
            m_keys.erase(m_keys.begin());
        }
    }

private:
    void subscribe(Context& context, const std::vector<SubscriptionKey>& keys)
    {
        // What an earlier client of our node id left behind would bring each notification twice. Acting
        // as a service, only the keys watched are taken over.
        if (!context.options().node)
            m_database.unsubscribeAll();
        for (const SubscriptionKey& key : keys) {
            for (int left = 0; context.options().node && left < mostLeftBehind && m_database.unsubscribe(key); ++left) {
            }
            const std::int32_t ticket = m_database.subscribe(key);
            m_keys.emplace(ticket, key);
            std::cerr << "tamoctl: watching " << printable(key.text()) << " (ticket " << ticket << ")\n";
        }
    }
    void abandon() noexcept
    try {
        end();
    } catch (const std::exception&) {
        m_keys.clear(); // the reason of the end is told, not what followed from it
    }

    static constexpr int mostLeftBehind = 1000;

    Database& m_database;
    std::map<std::int32_t, SubscriptionKey> m_keys; ///< by ticket
};

/// Lines to standard output that do not keep the watch from ending when nobody takes them.
class Lines {
public:
    explicit Lines(const Interruption& interruption) : m_interruption(interruption)
    {
        std::cout.flush();
        m_before = std::signal(SIGPIPE, SIG_IGN);
    }
    ~Lines() { std::signal(SIGPIPE, m_before); }
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

    /// False when the reader is gone or a signal came while it did not read.
    bool write(std::string line) const
    {
        line += '\n';
        for (std::size_t at = 0; at < line.size();) {
            pollfd polls[] = {{STDOUT_FILENO, POLLOUT, 0}, {m_interruption.descriptor(), POLLIN, 0}};
            if (::poll(polls, 2, -1) < 0)
                continue; // a signal that means nothing to us
            if (polls[0].revents == 0)
                return false;
            // As much as a pipe that is ready takes without waiting.
            const ssize_t step = ::write(STDOUT_FILENO, line.data() + at, std::min(line.size() - at, pipeStep));
            if (step >= 0)
                at += static_cast<std::size_t>(step);
            else if (errno == EPIPE)
                return false;
            else if (errno != EINTR && errno != EAGAIN)
                throw Failure(ExitCode::usage,
                              std::string("standard output cannot be written: ") + std::strerror(errno));
        }
        return true;
    }

private:
    static constexpr std::size_t pipeStep = 4096;
    const Interruption& m_interruption;
    void (*m_before)(int);
};

/// The notifications of a watch, one after the other. Behind each burst of them an answer is asked for:
/// its frame's number tells also of messages that were dropped at the very end of the burst.
class Incoming {
public:
    using Clock = ServiceClient::Clock;

    Incoming(Context& context, Clock::time_point until, const Interruption& interruption)
        : m_context(context), m_until(until), m_interruption(interruption)
    {}

    /// None at the end of the time and at a signal.
    std::optional<RawMessage> next()
    {
        while (!m_interruption.came()) {
            const auto pause = m_checked ? m_until : std::min(m_until, Clock::now() + calm);
            if (auto raw = m_context.client().nextNotification(pause, m_interruption.descriptor())) {
                m_checked = false;
                return raw;
            }
            if (Clock::now() >= m_until)
                break;
            if (!m_interruption.came())
                check();
        }
        return std::nullopt;
    }

private:
    static constexpr std::chrono::seconds calm{1};

    void check()
    {
        try {
            m_context.database().ready();
            m_checked = true;
        } catch (const ClientError& error) {
            if (error.kind != Trouble::timeout) // a service that is busy for long is asked again
                throw;
        }
    }

    Context& m_context;
    const Clock::time_point m_until;
    const Interruption& m_interruption;
    bool m_checked = false;
};

enum class WatchEnd { counted, timeUp, stopped };

WatchEnd showNotifications(Context& context, const Subscriptions& subscriptions, const WatchArguments& arguments,
                           const Interruption& interruption)
{
    using Clock = ServiceClient::Clock;
    const auto until =
        arguments.timeout > 0
            ? Clock::now() + std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(arguments.timeout))
            : Clock::time_point::max();
    const Lines lines(interruption);
    Incoming incoming(context, until, interruption);
    for (std::uint64_t shown = 0; arguments.count == 0 || shown < arguments.count;) {
        const auto raw = incoming.next();
        if (interruption.came())
            return WatchEnd::stopped;
        if (!raw)
            return WatchEnd::timeUp;
        TAMO_DBNotification message;
        if (!message.deserialize(&*raw))
            throw ClientError(Trouble::protocol, "a notification that cannot be read");
        const SubscriptionKey* key = subscriptions.find(message.ticket);
        if (!key)
            continue;
        const Told told{message, *key, std::chrono::system_clock::now()};
        if (!lines.write(context.json() ? notificationJson(told) : notificationText(told)))
            return WatchEnd::stopped;
        ++shown;
    }
    return WatchEnd::counted;
}

void watch(Context& context, const WatchArguments& arguments)
{
    const auto keys = keysOf(arguments);
    const Interruption interruption; // from before the first subscription
    Subscriptions subscriptions(context, keys);
    WatchEnd end{};
    try {
        end = showNotifications(context, subscriptions, arguments, interruption);
        subscriptions.end();
    } catch (const ClientError& error) {
        throw Failure(error.kind == Trouble::timeout ? ExitCode::timeout : ExitCode::incomplete, error.what());
    }
    if (end == WatchEnd::timeUp && arguments.count > 0)
        throw Failure(ExitCode::timeout, "fewer than " + std::to_string(arguments.count) + " notifications in time");
}

constexpr const char* footer = R"help(
A KEY is a subscription key as the service knows it: DN,INSTANCE,ATTRIBUTE,OPERATION, with fields left empty, or
,,,,KIND (1 every object, 2 MOM objects, 3 others), either with ",1" behind it for parked values too, or TRANSACTIONS.
Several keys may be watched at once; --all and --transactions are keys of their own beside --dn or --class.

The watch ends with exit code 0 at --count, at --timeout without --count, and at SIGINT or SIGTERM; with 5 when --timeout
comes before --count is reached; with 6 when notifications were missed or the connection was lost. The global --timeout
(before the verb) is for the answers of the service and does not end a watch. A line "watching KEY (ticket N)" on standard
error tells that a key is subscribed. With --as, a subscription of that client to the same key ends with the watch.
)help";

} // namespace

void addWatchVerb(CLI::App& app, Action& chosen)
{
    auto arguments = std::make_shared<WatchArguments>();
    CLI::App* verb = app.add_subcommand("watch", "Show changes as they are committed, a line each");
    verb->add_option("KEY", arguments->keys)->option_text("KEY ...");
    verb->add_option("--dn", arguments->dn, "An object, by its whole DN or its own pair, and its attributes");
    verb->add_option("--class", arguments->moClass, "All objects of a class, and their attributes");
    verb->add_option("--attribute", arguments->attribute, "With --dn: this attribute only");
    verb->add_option("--instance", arguments->instance, "With --dn: this MOInstance (default with --attribute: 1)")
        ->check(CLI::Range(1, 2147483647));
    verb->add_option("--operation", arguments->operation, "With --attribute: insert, update or delete only")
        ->check(CLI::IsMember(operationCodes));
    verb->add_option("--all", arguments->all, "Whole objects, attributes on one line: mom, other or every")
        ->check(CLI::IsMember(forAllKinds));
    verb->add_flag("--with-alternate", arguments->withAlternate,
                   "With --dn, --class, --all: values that are parked, too");
    verb->add_flag("--transactions", arguments->transactions, "Committed client transactions");
    verb->add_option("--count", arguments->count, "End after this many notifications")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62));
    verb->add_option("--timeout", arguments->timeout, "End after this many seconds")
        ->check(CLI::Range(0.001, longestWatch));
    verb->footer(footer);
    verb->callback([arguments, &chosen] { chosen = [arguments](Context& context) { watch(context, *arguments); }; });
    verb->fallthrough();
}
