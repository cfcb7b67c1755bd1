// Helpers of the utility library: commands, lists and file rights.
#include "Scratch.h"

#include "platform/utility/SystemFunctions.h"
#include "platform/utility/Timing.h"
#include "platform/utility/Toolbox.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <limits>
#include <set>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

unsigned modeOf(const std::string& path)
{
    struct stat file {};
    return ::stat(path.c_str(), &file) == 0 ? file.st_mode & 07777U : 0U;
}

std::string ownGroup()
{
    const group* own = getgrgid(getgid());
    return own ? own->gr_name : "";
}

} // namespace

TEST(ExecuteCmd, RunsTheShellInTheDirectoryAndTellsTheStatus)
{
    const Scratch scratch;
    EXPECT_EQ(executeCmd(10, "echo a b > 'out file' && exit 3", scratch.path(""), true), 3);
    EXPECT_EQ(scratch.read("out file"), "a b\n");
    EXPECT_EQ(executeCmd(10, "exit 0", scratch.path("missing"), true), 0);
    EXPECT_EQ(executeCmd(10, "/nonexistent/prepare.sh", "", true), 127);
    EXPECT_EQ(executeCmd(10, "kill -TERM $$", "", true), 128 + SIGTERM);
}

TEST(ExecuteCmd, CommandGetsNeitherOurDescriptorsNorOurSignals)
{
    const Scratch scratch;
    const int open = ::open(scratch.path("held").c_str(), O_CREAT | O_RDWR, 0600); // without O_CLOEXEC
    sigset_t mask;
    sigset_t old;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &mask, &old);
    const auto oldPipe = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(executeCmd(10, "test ! -e /proc/self/fd/" + std::to_string(open), "", true), 0);
    EXPECT_EQ(executeCmd(10, "kill -TERM $$; exit 0", "", true), 128 + SIGTERM);
    EXPECT_EQ(executeCmd(10, "kill -PIPE $$; exit 0", "", true), 128 + SIGPIPE);
    std::signal(SIGPIPE, oldPipe);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ::close(open);
}

TEST(ExecuteCmd, FilesOfTheNodeAreTakenFromItsRoot)
{
    const Scratch scratch;
    const std::string root = scratch.path("a node's root");
    const ScopedVariable variable("TAMO_NODE_ROOT", root);
    std::filesystem::create_directories(root + "/usr/bin");
    std::filesystem::create_directories(root + "/mnt/activecfg");
    scratch.write("a node's root/usr/bin/prepare.sh", "#!/bin/sh\necho \"$1 $2 $3\" > arguments\n");
    ::chmod((root + "/usr/bin/prepare.sh").c_str(), 0755);
    EXPECT_EQ(executeCmd(10, "/usr/bin/prepare.sh /mnt/activecfg /mnt/missing mnt/activecfg", scratch.path(""), true),
              0);
    EXPECT_EQ(scratch.read("arguments"), root + "/mnt/activecfg /mnt/missing mnt/activecfg\n");
}

TEST(ResetReasons, EveryCodeHasItsOwnNameAndOthersNone)
{
    std::set<std::string> names;
    for (int code = 0; code <= 30; ++code)
        names.insert(tamoResetReasontoString(code));
    EXPECT_EQ(names.size(), 31U);
    for (const int code : {-1, 31, 1000000, -2147483647})
        EXPECT_STREQ(tamoResetReasontoString(code), "unknown");
}

TEST(ReadStringToList, SplitsAtEverySeparator)
{
    Texts list{"left over"};
    EXPECT_TRUE(Toolbox::readStringToList("A=1,B=2;C=3", ';', list, true));
    EXPECT_EQ(list, (Texts{"A=1,B=2", "C=3"}));
    EXPECT_TRUE(Toolbox::readStringToList(";a;;b;", ';', list, true));
    EXPECT_EQ(list, (Texts{"a", "b"}));
    EXPECT_TRUE(Toolbox::readStringToList(";a;;b;", ';', list, false));
    EXPECT_EQ(list, (Texts{"", "a", "", "b", ""}));
    EXPECT_TRUE(Toolbox::readStringToList(";;", ';', list, true)) << "a list of nothing is a list";
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(Toolbox::readStringToList("", ';', list, true));
}

TEST(ConvertString, TakesWholeNumbersThatFitAndNothingElse)
{
    std::int32_t number = 5;
    for (const char* text :
         {"", " ", " 7", "7 ", "7x", "x7", "+7", "--7", "0x7", "7.0", "7e0", "2147483648", "-", "\u0667"})
        EXPECT_FALSE(Toolbox::convertStringToInt(text, number, true)) << text;
    EXPECT_FALSE(Toolbox::convertStringToInt(std::string("7\0", 2), number, true));
    EXPECT_EQ(number, 5) << "as it was";
    EXPECT_TRUE(Toolbox::convertStringToInt("-2147483648", number, true));
    EXPECT_EQ(number, std::numeric_limits<std::int32_t>::min());
    EXPECT_TRUE(Toolbox::convertStringToInt("007 and more", number, false));
    EXPECT_EQ(number, 7);
    EXPECT_FALSE(Toolbox::convertStringToInt("99999999999 and more", number, false));

    std::int16_t small = 0;
    std::uint16_t smallPositive = 0;
    std::uint32_t positive = 0;
    std::int64_t large = 0;
    std::uint64_t largePositive = 0;
    EXPECT_TRUE(Toolbox::convertStringToShort("-32768", small, true) && small == -32768);
    EXPECT_FALSE(Toolbox::convertStringToShort("32768", small, true));
    EXPECT_TRUE(Toolbox::convertStringToUShort("65535", smallPositive, true) && smallPositive == 65535);
    EXPECT_FALSE(Toolbox::convertStringToUShort("-1", smallPositive, true));
    EXPECT_TRUE(Toolbox::convertStringToUInt("4294967295", positive, true) && positive == 4294967295U);
    EXPECT_FALSE(Toolbox::convertStringToUInt("4294967296", positive, true));
    EXPECT_TRUE(Toolbox::convertStringToLongLong("-9223372036854775808", large, true) && large < -9223372036854775807);
    EXPECT_FALSE(Toolbox::convertStringToLongLong("9223372036854775808", large, true));
    EXPECT_TRUE(Toolbox::convertStringToULongLong("18446744073709551615", largePositive, true) && ~largePositive == 0);
    EXPECT_FALSE(Toolbox::convertStringToULongLong("18446744073709551616", largePositive, true));

    double fraction = 0.5;
    for (const char* text : {"", " 1", "1 ", "1,5", "1.5x", "+1", "inf", "-inf", "nan", "1e999", "0x1p3", "."})
        EXPECT_FALSE(Toolbox::convertStringToDouble(text, fraction)) << text;
    EXPECT_EQ(fraction, 0.5) << "as it was";
    EXPECT_TRUE(Toolbox::convertStringToDouble("-1.25e-2", fraction) && fraction == -0.0125);
}

TEST(ChangeFileAccess, SetsModeAndGroupAndTellsWhatIsMissing)
{
    const Scratch scratch;
    scratch.write("dump", "x");
    ::chmod(scratch.path("dump").c_str(), 0600);
    EXPECT_TRUE(Toolbox::changeFileAccess(scratch.path("dump"), 0640, ownGroup()));
    EXPECT_EQ(modeOf(scratch.path("dump")), 0640U);
    EXPECT_TRUE(Toolbox::changeFileAccess(scratch.path("dump"), 0640, ownGroup())) << "again, nothing to do";

    ::chmod(scratch.path("dump").c_str(), 0600);
    EXPECT_FALSE(Toolbox::changeFileAccess(scratch.path("dump"), 0640, "tamo_no_such_group"));
    EXPECT_EQ(modeOf(scratch.path("dump")), 0640U) << "the mode is set without the group, too";
    EXPECT_FALSE(Toolbox::changeFileAccess(scratch.path("missing"), 0640, ownGroup()));
}

TEST(Timing, TellsMillisecondsAcrossTheTurnOfASecond)
{
    Start();
    Stop();
    EXPECT_GE(gElapsedTime, 0.0);
    gT1.tv_sec -= 2;
    gT1.tv_usec = 999999;
    Stop();
    const double seconds = static_cast<double>(gT2.tv_sec - gT1.tv_sec);
    const double microseconds = static_cast<double>(gT2.tv_usec) - 999999.0;
    EXPECT_DOUBLE_EQ(gElapsedTime, microseconds / 1000.0 + seconds * 1000.0);
    EXPECT_GT(gElapsedTime, 1000.0);
}
