// The log: what reaches the file, the sink and the journal, and what does not.
#include "Scratch.h"

#include "platform/host/LogSink.h"
#include "platform/middleware/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// Each test logs into a file of its own.
class Log : public testing::Test {
protected:
    Log() { mw_log::configure(); }
    ~Log() override
    {
        mw_log::setSink({});
        unsetenv("TAMO_LOG_FILE");
        unsetenv("TAMO_LOG_LEVEL");
        mw_log::configure();
    }
    void level(const char* name)
    {
        setenv("TAMO_LOG_LEVEL", name, 1);
        mw_log::configure();
    }
    std::vector<std::string> lines() const
    {
        std::vector<std::string> all;
        std::istringstream text(scratch.read("log"));
        for (std::string line; std::getline(text, line);)
            all.push_back(line);
        return all;
    }
    Scratch scratch;
    ScopedVariable file{"TAMO_LOG_FILE", scratch.path("log").c_str()};
};

/// Collects what the log hands on.
struct Lines {
    std::vector<std::pair<unsigned, std::string>> got;
    Lines()
    {
        mw_log::setSink([this](unsigned level, const std::string& text) { got.emplace_back(level, text); });
    }
    ~Lines() { mw_log::setSink({}); }
};

int evaluated = 0;
int costly() { return ++evaluated; }

} // namespace

TEST_F(Log, LevelDecidesWhatIsWrittenAndEvaluated)
{
    level("warning");
    evaluated = 0;
    LOG_ERROR("first %d", 1);
    LOG_WARNING("second");
    LOG_INFO("third %d", costly());
    LOG_DEBUG("fourth %d", costly());
    mw_api_log_impl(mwLogModule, mwLogDebug, 1, "past the macros");
    ASSERT_EQ(lines().size(), 2U);
    EXPECT_NE(lines()[0].find(" error   first 1"), std::string::npos) << lines()[0];
    EXPECT_NE(lines()[1].find(" warning second"), std::string::npos) << lines()[1];
    EXPECT_EQ(evaluated, 0);

    level("debug");
    LOG_DEBUG("fourth %d", costly());
    EXPECT_EQ(lines().size(), 3U);
}

TEST_F(Log, UnknownLevelIsNamedAndInfoHolds)
{
    level("chatty");
    ASSERT_EQ(lines().size(), 1U);
    EXPECT_NE(lines()[0].find("\"chatty\""), std::string::npos);
    EXPECT_TRUE(mw_log::enabled(mwLogInfo));
    EXPECT_FALSE(mw_log::enabled(mwLogDebug));
}

TEST_F(Log, LineStaysOneLineWhateverBytesAValueHolds)
{
    const Lines sink;
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    LOG_INFO("value '%s'", everyByte.c_str());
    LOG_INFO("%s", "next\nline\r\ttab \x1b[2J \xC2\x85 \xE2\x80\xA8 \xED\xA0\x80 \xF4\x90\x80\x80 \xC3");
    LOG_INFO("%s", "Größe 基地局 📡 C:\\n");
    ASSERT_EQ(lines().size(), 3U);
    for (const char c : scratch.read("log"))
        EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << int{c};
    ASSERT_EQ(sink.got.size(), 3U);
    EXPECT_EQ(sink.got[1].second, "next\\nline\\r\\ttab \\x1b[2J \\xc2\\x85 \\xe2\\x80\\xa8 \\xed\\xa0\\x80 "
                                  "\\xf4\\x90\\x80\\x80 \\xc3");
    EXPECT_EQ(sink.got[2].second, "Größe 基地局 📡 C:\\n");
}

TEST_F(Log, LongLineArrivesWhole)
{
    for (const std::size_t length : {1000U, 1023U, 1024U, 100000U}) {
        const Lines sink;
        const std::string value(length, 'x');
        LOG_INFO("%s|%d", value.c_str(), 7);
        ASSERT_EQ(sink.got.size(), 1U);
        EXPECT_EQ(sink.got[0].second, value + "|7");
        EXPECT_TRUE(lines().back().ends_with(value + "|7"));
    }
}

TEST_F(Log, ThreadsDoNotMixTheirLines)
{
    constexpr int threads = 4;
    constexpr int each = 500;
    int heard = 0; // the sink is called one at a time
    mw_log::setSink([&](unsigned, const std::string&) { ++heard; });
    std::vector<std::thread> writers;
    for (int who = 0; who < threads; ++who)
        writers.emplace_back([who] {
            const std::string tail(200, static_cast<char>('a' + who));
            for (int i = 0; i < each; ++i)
                LOG_INFO("from %d %s end", who, tail.c_str());
        });
    for (auto& writer : writers)
        writer.join();
    mw_log::setSink({});
    EXPECT_EQ(heard, threads * each);
    std::map<std::string, int> kinds;
    for (const auto& line : lines())
        ++kinds[line.substr(line.find("from "))];
    EXPECT_EQ(kinds.size(), std::size_t{threads});
    for (const auto& [line, count] : kinds)
        EXPECT_EQ(count, each) << line;
}

TEST_F(Log, ErrnoSurvivesALine)
{
    errno = ENOENT;
    LOG_ERROR("a line");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Log, UnusableFileIsNamedAndLinesAreNotLost)
{
    const Lines sink;
    testing::internal::CaptureStderr();
    setenv("TAMO_LOG_FILE", scratch.path("missing\n/").c_str(), 1);
    mw_log::configure();
    LOG_ERROR("still heard");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_NE(written.find("TAMO_LOG_FILE"), std::string::npos) << written;
    EXPECT_NE(written.find("still heard"), std::string::npos) << written;
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 2) << written;
}

TEST_F(Log, JournalGetsLevelsOnlyWhenStandardErrorLeadsThere)
{
    unsetenv("TAMO_LOG_FILE");
    const auto writtenWith = [&](bool matching) {
        testing::internal::CaptureStderr();
        struct stat target {};
        fstat(STDERR_FILENO, &target);
        const std::string stream =
            std::to_string(target.st_dev) + ":" + std::to_string(target.st_ino + (matching ? 0 : 1));
        const ScopedVariable journal("JOURNAL_STREAM", stream.c_str());
        mw_log::configure();
        LOG_ERROR("e");
        LOG_WARNING("w");
        LOG_INFO("i");
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(writtenWith(true), "<3>e\n<4>w\n<6>i\n");
    EXPECT_EQ(writtenWith(false).find("<"), std::string::npos);
}
