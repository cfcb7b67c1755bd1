#pragma once

#include "store/SQLite.h"

#include <cstdint>
#include <memory>
#include <string>

/// The decisions of one start about the permanent configuration: load it, restore it from the backup,
/// delete it, or give it up and have the node fall back or reset. What an earlier run left in the
/// common database (why the node was reset, whether a backup or restore is under way) comes first,
/// then the middleware's reset reason, then the files themselves.
class SQLite::StartUpLoad {
public:
    explicit StartUpLoad(SQLite& store);

    /// True when the permanent configuration is in the runtime database. Orders for the middleware
    /// are given and not waited for.
    bool run();

private:
    /// The middleware's reason after a reset that somebody ordered.
    static constexpr std::int32_t middlewareOrderedReset = 6;

    // The common database (StartUpLoad_CommonDb.cpp)
    bool readCommonDatabase();
    bool loadCommonDatabase();
    void putCommonDatabaseAside();
    void takeCommonObject();
    template <class Kind>
    const Kind* fact(const char* name);
    void consumeReason(std::int32_t reason, std::int32_t objectId);
    void insertCommonObject();
    bool writeBackupNotOngoing();

    // The permanent configuration (StartUpLoad.cpp)
    bool askMiddleware();
    bool withoutBackup();
    void factoryReset();
    int load();
    bool loadedSoundly(int result);
    void giveUpPermanentFile();
    bool takeOver();
    void startSamePartitionAgain();

    // A start in the middle of backup-and-restore (StartUpLoad_Restore.cpp)
    bool duringBackup();
    bool restore();
    bool replacePermanentFile();
    bool refuseRestoredMode();
    void abandonBackup();
    void removeBackupDirectory();

    SQLite& m_store;
    const std::string m_permanentFile;
    const std::string m_backupDirectory;
    const std::string m_backupFile;
    std::string m_commonFile;
    std::unique_ptr<DBObject> m_common; // as it was read, without what was consumed
    bool m_reasonFound = false;         // in the common database
    bool m_backupOngoing = false;
    std::int32_t m_middlewareReason = 12;
};
