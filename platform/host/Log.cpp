// The log of a node that runs on a workstation: a printf front, spdlog behind it.
//
// Every line of the service and of the tools ends here. A line stays one line whatever a client put
// into a value, since people and scripts read the log by lines, and the journal hides a line that is
// not text.
#include "platform/middleware/Log.h"
#include "platform/host/LogSink.h"

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

struct LevelRow {
    const char* name; // in TAMO_LOG_LEVEL
    unsigned level;
    spdlog::level::level_enum behind;
};
constexpr LevelRow levels[] = {
    {"error", mwLogError, spdlog::level::err},
    {"warning", mwLogWarning, spdlog::level::warn},
    {"info", mwLogInfo, spdlog::level::info},
    {"debug", mwLogDebug, spdlog::level::debug},
};

spdlog::level::level_enum behindOf(unsigned level)
{
    for (const auto& row : levels)
        if (level <= row.level)
            return row.behind;
    return spdlog::level::debug;
}

/// True when standard error leads into the journal, which then reads a level at the start of a line.
/// A program started from a service inherits the variable, hence the comparison with the file.
bool writesToJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat file {};
    if (!stream || fstat(STDERR_FILENO, &file) != 0)
        return false;
    return std::to_string(file.st_dev) + ':' + std::to_string(file.st_ino) == stream;
}

/// The journal's number for a line's level.
class JournalPrefix : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& line, const std::tm&, spdlog::memory_buf_t& to) override
    {
        const std::string_view prefix = line.level == spdlog::level::err    ? "<3>"
                                        : line.level == spdlog::level::warn ? "<4>"
                                        : line.level == spdlog::level::info ? "<6>"
                                                                            : "<7>";
        to.append(prefix.data(), prefix.data() + prefix.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override { return std::make_unique<JournalPrefix>(); }
};

std::shared_ptr<spdlog::logger> makeLogger(spdlog::sink_ptr sink, bool journal)
{
    auto logger = std::make_shared<spdlog::logger>(program_invocation_short_name, std::move(sink));
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<JournalPrefix>('*').set_pattern(journal ? "%*%v" : "%Y-%m-%d %H:%M:%S.%e %n[%t] %-7l %v");
    logger->set_formatter(std::move(formatter));
    logger->set_level(spdlog::level::trace); // mw_log::threshold has judged the line already
    logger->flush_on(spdlog::level::trace);  // the last lines before a crash are the ones that count
    return logger;
}

/// Where lines go. Never destroyed: destructors of other static objects may still log.
struct Output {
    std::mutex mutex; // of `logger`, not of the writing: spdlog's sinks have their own
    std::shared_ptr<spdlog::logger> logger;
    std::recursive_mutex sinkMutex; // recursive, because a sink may log
    std::atomic<bool> hasSink{false};
    mw_log::Sink sink;
};

Output& output()
{
    static Output& it = *new Output;
    return it;
}

std::shared_ptr<spdlog::logger> currentLogger()
{
    const std::lock_guard lock(output().mutex);
    return output().logger;
}

void setLogger(std::shared_ptr<spdlog::logger> logger)
{
    const std::lock_guard lock(output().mutex);
    output().logger = std::move(logger);
}

/// Length of the printable UTF-8 character that `rest` begins with; 0 when there is none.
std::size_t printableLength(std::string_view rest)
{
    const auto byte = [&](std::size_t i) { return i < rest.size() ? static_cast<unsigned char>(rest[i]) : 0U; };
    const auto continues = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
    const unsigned first = byte(0);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    if (first >= 0xC2 && first <= 0xDF) // below U+00A0 are control characters, one of them a line end
        return continues(1) && !(first == 0xC2 && byte(1) < 0xA0) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        const unsigned code = (first & 0xFU) << 12 | (byte(1) & 0x3FU) << 6 | (byte(2) & 0x3FU);
        const bool separator = code == 0x2028 || code == 0x2029;
        const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        return continues(1) && continues(2) && code >= 0x800 && !surrogate && !separator ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const unsigned high = (first & 0x7U) << 6 | (byte(1) & 0x3FU); // the code's bits from 12 up
        return continues(1) && continues(2) && continues(3) && high >= 0x10 && high <= 0x10F ? 4 : 0;
    }
    return 0;
}

void appendEscaped(std::string& to, char c)
{
    constexpr char digits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\n')
        to += "\\n";
    else if (c == '\r')
        to += "\\r";
    else if (c == '\t')
        to += "\\t";
    else
        to.append({'\\', 'x', digits[byte >> 4], digits[byte & 0xF]});
}

std::string formatted(const char* format, va_list values)
{
    char shortLine[1024];
    va_list again;
    va_copy(again, values);
    const int length = std::vsnprintf(shortLine, sizeof shortLine, format, values);
    std::string line;
    if (length < 0) {
        line = std::string(format) + " (line could not be formatted)";
    } else if (static_cast<std::size_t>(length) < sizeof shortLine) {
        line.assign(shortLine, static_cast<std::size_t>(length));
    } else {
        line.resize(static_cast<std::size_t>(length));
        std::vsnprintf(line.data(), line.size() + 1, format, again);
    }
    va_end(again);
    return line;
}

void write(unsigned level, const std::string& line)
{
    auto logger = currentLogger();
    if (!logger) { // a line from another file's static object, before configure() below has run
        mw_log::configure();
        logger = currentLogger();
    }
    logger->log(behindOf(level), spdlog::string_view_t(line.data(), line.size()));
    auto& out = output();
    if (!out.hasSink.load(std::memory_order_acquire))
        return;
    const std::lock_guard lock(out.sinkMutex);
    const auto sink = out.sink; // a copy: the sink may replace itself
    if (sink)
        sink(level, line);
}

void configureLevel()
{
    const char* wanted = std::getenv("TAMO_LOG_LEVEL");
    mw_log::threshold = mwLogInfo;
    if (!wanted || !*wanted)
        return;
    for (const auto& row : levels)
        if (std::strcmp(wanted, row.name) == 0) {
            mw_log::threshold = row.level;
            return;
        }
    LOG_WARNING("TAMO_LOG_LEVEL is \"%s\"; error, warning, info and debug are known, info is used", wanted);
}

void configureTarget()
{
    setLogger(makeLogger(std::make_shared<spdlog::sinks::stderr_sink_mt>(), writesToJournal()));
    const char* file = std::getenv("TAMO_LOG_FILE");
    if (!file || !*file)
        return;
    try {
        setLogger(makeLogger(std::make_shared<spdlog::sinks::basic_file_sink_mt>(file), false));
    } catch (const spdlog::spdlog_ex& error) {
        LOG_WARNING("TAMO_LOG_FILE cannot be used, the log goes to standard error: %s", error.what());
    }
}

} // namespace

namespace mw_log {

std::atomic<unsigned> threshold{mwLogInfo};

std::string oneLine(const std::string& text)
{
    std::string line;
    line.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();) {
        if (const std::size_t length = printableLength(rest)) {
            line.append(rest.substr(0, length));
            rest.remove_prefix(length);
        } else {
            appendEscaped(line, rest.front());
            rest.remove_prefix(1);
        }
    }
    return line;
}

void setSink(Sink sink)
{
    auto& out = output();
    const std::lock_guard lock(out.sinkMutex);
    out.hasSink.store(static_cast<bool>(sink), std::memory_order_release);
    out.sink = std::move(sink);
}

void configure()
{
    configureTarget();
    configureLevel();
}

} // namespace mw_log

void mw_api_log_impl(unsigned, unsigned level, int, const char* format, ...)
{
    if (!mw_log::enabled(level))
        return;
    const int savedErrno = errno; // callers go on to look at it
    va_list values;
    va_start(values, format);
    try {
        const std::string line = formatted(format, values);
        write(level, mw_log::oneLine(line));
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch)
        // No memory for a line: what it was to tell of goes on, and nobody is left to tell.
    }
    va_end(values);
    errno = savedErrno;
}

namespace {
// At load time, so that the threshold holds before main's first line.
[[maybe_unused]] const bool configured = (mw_log::configure(), true);
} // namespace
