// Helpers of the utility library: commands, lists and file rights.
#include "Scratch.h"

#include "platform/utility/SystemFunctions.h"
#include "platform/utility/Toolbox.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <grp.h>
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
