// Runs a command beside a database service that lives in this process, with the dump after each
// commit switched off unless --dump is given: with_service [--dump] COMMAND [ARGUMENT…]. The command
// finds the service by TAMO_FRAMEWORK_DIR.

#include "BenchDirectory.h"

#include "requests/DatabaseWrapper.h"
#include "store/FileLocations.h"
#include "store/SQLite.h"

#include "platform/framework/FrameworkCore.h"

#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int run(char** command)
{
    const pid_t child = fork();
    if (child == 0) {
        execvp(command[0], command);
        std::perror(command[0]);
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int count, char** arguments)
{
    char** command = arguments + 1;
    const bool dump = count > 1 && std::strcmp(arguments[1], "--dump") == 0;
    command += dump ? 1 : 0;
    if (!*command) {
        std::fputs("usage: with_service [--dump] COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    const BenchDirectory directory;
    SQLite& store = SQLite::getInstance();
    store.setDatabaseDumpEnabled(dump);
    store.loadOrSaveDb(SQLite::Direction::load);
    store.setDatabaseFile(dumpFile());
    store.setReady();
    TAMO::Framework::FrameworkCore framework;
    framework.initialize();
    if (!TAMO::Framework::Control::FrameworkControl::initialize({"--node", "db"}))
        return 1;
    auto* const wrapper = new DatabaseWrapper("DatabaseWrapper");
    wrapper->initialise();
    wrapper->start();
    const int status = run(command);
    wrapper->enqueueEvent(TAMO::Framework::Event(TAMO::Framework::terminateRequested));
    wrapper->thread().join();
    framework.finalize();
    TAMO::Framework::Control::FrameworkControl::finalize();
    SQLite::destroyInstance(dump);
    return status;
}
