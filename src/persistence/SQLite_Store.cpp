// Storing to flash: the pruned copy is built in /tmp (PersistentStorage.cpp), compared with what is on
// flash when the store is the periodic one, and copied over it. DatabaseWrapper_Store.cpp decides when.

#include "store/SQLite.h"

#include "persistence/PersistentStorage.h"
#include "persistence/PreviousConfiguration.h"
#include "persistence/ShellCommand.h"
#include "store/FileLocations.h"

#include "platform/framework/Lockables.h"
#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using TAMO::Framework::LockUser;

namespace {

const std::string scratchDirectory = "/tmp";
const std::string temporaryFile = "/tmp/tmp_pRBSdb";
const std::string firstDump = "/tmp/first.dump";
const std::string secondDump = "/tmp/second.dump";
const std::string countFile = "/tmp/diff.txt";

/// The files of one store: none is there before and none stays, whoever left it. What the store
/// creates, the service's own commands included, is for this user alone.
class StoreFiles {
public:
    StoreFiles() : m_previousMask(umask(077)) { clear(true); }
    ~StoreFiles()
    {
        clear(false);
        umask(m_previousMask);
    }
    StoreFiles(const StoreFiles&) = delete;
    StoreFiles& operator=(const StoreFiles&) = delete;

private:
    /// Removes the names themselves: what a link leads to is not ours.
    static void clear(bool log)
    {
        removeSideFiles(temporaryFile);
        for (const std::string& file : {temporaryFile, firstDump, secondDump, countFile}) {
            std::error_code error;
            fs::remove(file, error);
            // A directory with something in it is somebody's: out of the way it goes, but not away.
            if (error && !moveAside(file) && log)
                LOG_ERROR("Cannot remove the left-over %s: %s", file.c_str(), error.message().c_str());
        }
    }

    const mode_t m_previousMask;
};

std::array<std::string, 3> comparisonCommands(const std::string& first, const std::string& second,
                                              const std::string& directory)
{
    const std::string one = shellWord(directory + "/first.dump");
    const std::string two = shellWord(directory + "/second.dump");
    return {"echo .dump | sqlite3 " + shellWord(first) + " >" + one,
            "echo .dump | sqlite3 " + shellWord(second) + " >" + two,
            "diff " + one + " " + two + " | grep -c \\- >/tmp/diff.txt"};
}

bool fit(const std::array<std::string, 3>& commands)
{
    constexpr std::size_t longest = 255;
    return std::ranges::all_of(commands, [](const std::string& command) { return command.size() <= longest; });
}

/// A dump that was broken off, by a full disk for one, lacks its last line.
bool isWholeDump(const std::string& file)
{
    std::ifstream dump(file, std::ios::binary | std::ios::ate);
    const std::streamoff size = dump ? static_cast<std::streamoff>(dump.tellg()) : 0;
    std::string end(static_cast<std::size_t>(std::min<std::streamoff>(size, 40)), '\0');
    dump.seekg(-static_cast<std::streamoff>(end.size()), std::ios::end);
    dump.read(end.data(), static_cast<std::streamsize>(end.size()));
    return end.ends_with("\nCOMMIT;\n") || end.ends_with("\nROLLBACK; -- due to errors\n");
}

/// Why the count of differences says nothing; null when it does.
const char* whyNotCompared(const std::string& permanent)
{
    if (!fit(comparisonCommands(temporaryFile, permanent, scratchDirectory)))
        return "a command would be longer than 255 characters";
    if (!isWholeDump(firstDump))
        return "the new content could not be dumped";
    if (!isWholeDump(secondDump))
        return "the stored content could not be dumped";
    std::error_code error;
    const auto size = fs::file_size(countFile, error);
    return error || size == 0 ? "the differences could not be counted" : nullptr;
}

/// Whether what was built differs from what is on flash. Yes where that cannot be told: a write too
/// many does no harm, and a change that is never written does.
bool isChanged(const std::string& permanent, const char* operation)
{
    if (!SQLite::CheckIfFileExists(permanent))
        return true;
    const int changes = SQLite::IsPersistentAttributesChanged(temporaryFile, permanent, scratchDirectory);
    const char* const reason = whyNotCompared(permanent);
    if (!reason)
        return changes >= 1;
    LOG_ERROR("SQLite::%s: no comparison with %s: %s. It counts as changed.", operation, permanent.c_str(), reason);
    return true;
}

off_t sizeOf(const std::string& file)
{
    struct stat entry {};
    return stat(file.c_str(), &entry) == 0 ? entry.st_size : 0;
}

bool isSameFile(const std::string& a, const std::string& b)
{
    std::error_code error;
    if (fs::equivalent(a, b, error))
        return true;
    const fs::path left = fs::weakly_canonical(a, error);
    return !error && left == fs::weakly_canonical(b, error) && !error;
}

/// Makes the target one that cp replaces: cp would copy into a directory and report success, and wait
/// for ever at a pipe. A journal would be rolled back onto the new content.
bool clearTarget(const std::string& target, const char* operation)
{
    removeSideFiles(target);
    std::error_code error;
    if (!fs::exists(fs::symlink_status(target, error)) || isRegularFile(target))
        return true;
    if (!moveAside(target)) {
        LOG_ERROR("SQLite::%s: %s is no file, and cannot be moved aside: %s", operation, target.c_str(),
                  std::strerror(errno));
        return false;
    }
    LOG_WARNING("SQLite::%s: %s was no readable file and is now %s", operation, target.c_str(),
                rejectedName(target).c_str());
    return true;
}

/// Copies what was built to the target; true when it is there.
bool copyTo(const std::string& target, const char* operation)
{
    if (!clearTarget(target, operation))
        return false;
    const std::string command = "cp " + temporaryFile + " " + shellWord(target);
    const int status = runCommand(command);
    LOG_DEBUG("SQLite::%s: copy command '%s', return value: %d", operation, command.c_str(), status);
    return status == 0;
}

/// What a store on request writes, and where.
struct Dump {
    std::string target = permanentFile();
    std::vector<std::int32_t> excluded;
    bool keepAlternateStorage = true;
};

/// Software inventory and backup administration are left out: they are stored apart. None when the
/// backup would overwrite a database in use.
std::optional<Dump> backupDump(SQLite& store, const char* operation)
{
    Dump dump;
    dump.target = environmentPath("TAMO_BRM_TEMP_FILE_PATH").value_or("") + "/pRBSdb";
    dump.keepAlternateStorage = false;
    if (isSameFile(dump.target, permanentFile()) || isSameFile(dump.target, runtimeFile())) {
        LOG_ERROR("SQLite::%s: A backup must not overwrite the permanent or the runtime database: %s", operation,
                  dump.target.c_str());
        return std::nullopt;
    }
    for (const char* const dn : {"SwInventory=1", "BrM=1"}) {
        LOG_DEBUG("SQLite::%s: Removing objects from backup - %s", operation, dn);
        if (const std::int32_t id = store.get_object_id(dn, 1))
            dump.excluded.push_back(id);
    }
    return dump;
}

void removeByCommand(const std::string& file)
{
    std::error_code error;
    if (fs::exists(fs::symlink_status(file, error))) // rm would complain
        runCommand("rm " + file);
}

} // namespace

int SQLite::IsPersistentAttributesChanged(const std::string& first, const std::string& second,
                                          const std::string& directory)
{
    LOG_DEBUG("SQLite::%s ENTRY", __func__);
    const auto commands = comparisonCommands(first, second, directory);
    const bool runs = fit(commands);
    for (std::size_t i = 0; runs && i < commands.size(); ++i) {
        runCommand(commands[i]);
        LOG_DEBUG("SQLite::%s %zu. command %s", __func__, i + 1, commands[i].c_str());
    }
    std::ifstream result(countFile, std::ios::binary);
    if (!runs || !result) {
        LOG_DEBUG("SQLite::%s EXIT, no changes found", __func__);
        return -1;
    }
    std::array<char, 41> text{};
    result.read(text.data(), text.size() - 1);
    const int changes = std::atoi(text.data());
    if (result.gcount() > 0)
        LOG_DEBUG("SQLite::%s EXIT, %d changes found", __func__, changes);
    return changes;
}

bool SQLite::storeDbToFlash()
{
    LOG_INFO("SQLite::%s: Waiting persistent database operations.", __func__);
    const LockUser lock(*m_persistentDbSemaphore);
    LOG_INFO("SQLite::%s: Persistent database ready.", __func__);
    LOG_DEBUG("SQLite::%s Searching for persistent objects from database", __func__);
    if (unavailable(__func__))
        return false;
    PersistentStorage storage;
    if (!storage.hasPersistentData(*m_runtime)) {
        LOG_INFO("SQLite::%s: No persistent MOs to store.", __func__);
        return true;
    }
    const StoreFiles files;
    constexpr bool keepAlternateStorage = true;
    if (!storage.storePersistentData(*m_runtime, temporaryFile, {}, keepAlternateStorage)) {
        LOG_ERROR("SQLite::%s: Storing persistent dump failed", __func__);
        return false;
    }
    LOG_INFO("SQLite::%s: Temp persistent MOs stored, starting compare", __func__);
    const std::string permanent = permanentFile();
    bool result = true;
    if (!isChanged(permanent, __func__)) {
        LOG_INFO("SQLite::%s: pRBSdb not stored to flash", __func__);
    } else if (PreviousConfiguration previous(permanent, sizeOf(temporaryFile)); !copyTo(permanent, __func__)) {
        LOG_ERROR("SQLite::%s: failed to copy new pRBSdb to flash", __func__);
        result = false;
    } else {
        LOG_DEBUG("SQLite::%s: Copied new pRbsDb to %s", __func__, permanent.c_str());
        LOG_INFO("SQLite::%s: pRBSdb stored to flash", __func__);
        flushFileSystems();
        previous.drop();
    }
    for (const std::string& file : {temporaryFile, firstDump, secondDump, countFile})
        removeByCommand(file);
    return result;
}

bool SQLite::storePersistentDump(bool backup)
{
    LOG_INFO("SQLite::%s: Waiting persistent database operations.", __func__);
    const LockUser lock(*m_persistentDbSemaphore);
    LOG_INFO("SQLite::%s: Persistent database ready.", __func__);
    LOG_DEBUG("SQLite::%s: Searching for persistent objects from database", __func__);
    if (unavailable(__func__))
        return false;
    PersistentStorage storage;
    if (!storage.hasPersistentData(*m_runtime)) {
        LOG_INFO("SQLite::%s: No persistent MOs to store.", __func__);
        return true;
    }
    const std::optional<Dump> dump = backup ? backupDump(*this, __func__) : Dump();
    if (!dump)
        return false;
    const StoreFiles files;
    if (!storage.storePersistentData(*m_runtime, temporaryFile, dump->excluded, dump->keepAlternateStorage)) {
        LOG_ERROR("SQLite::%s: Storing persistent dump failed", __func__);
        removeByCommand(temporaryFile);
        return false;
    }
    const char* const target = dump->target.c_str();
    std::optional<PreviousConfiguration> previous;
    if (!backup)
        previous.emplace(dump->target, sizeOf(temporaryFile));
    const bool copied = copyTo(dump->target, __func__);
    removeByCommand(temporaryFile);
    if (!copied) {
        LOG_ERROR("SQLite::%s: Failed to copy new pRBSdb to %s", __func__, target);
        return false;
    }
    LOG_DEBUG("SQLite::%s: Copied new pRBSdb to %s", __func__, target);
    LOG_INFO("SQLite::%s: Persistent MOs stored", __func__);
    flushFileSystems();
    if (previous)
        previous->drop();
    return true;
}
