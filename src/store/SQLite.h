#pragma once

#include "platform/utility/DBObject.h"
#include "store/AttributeSyncPairs.h"
#include "store/Connection.h"
#include "store/FlagScope.h"
#include "store/NotificationList.h"
#include "store/PathCache.h"
#include "values/Attribute.h"

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

class ChangeSink;

namespace TAMO::Framework {
class NamedSemaphore;
}

/// The object store: the managed-object tree in SQLite. One per process; used by the main thread
/// during start-up and by the request thread afterwards, and without a lock of its own.
///
/// Write operations take `inTransaction`: false runs them in an SQLite transaction of their own,
/// true inside the one the caller holds open, which they neither commit nor roll back. `client`
/// names the requester in log lines. While the shut-down flag is set, and on a store without a
/// runtime connection, operations return their failure value and touch nothing. After every SQLite
/// error an operation logs and runs doIntegrityCheck().
class SQLite {
public:
    using Objects = std::list<std::unique_ptr<DBObject>>;

    /// An object's row.
    struct ObjectRow {
        std::int32_t id = 0;
        std::int32_t parent = 0;
        std::string dn;
        std::int32_t MOInstance = 0;
        bool isMOMObject = false;
        bool system = false;
    };

    /// A row that a write changed, as SQLite's update hook tells it.
    struct ChangedRow {
        std::array<char, 101> table{}; ///< its first 100 characters
        std::int64_t rowId = 0;
        std::int32_t operation = 0; ///< a ChangeOperation
    };

    // --- Life (SQLite_Lifecycle.cpp) ---------------------------------------------------------

    /// The store; made, with an empty runtime database, by the first call.
    static SQLite& getInstance();

    /// Ends the store: saves the runtime database into the database file, unless `save` is false,
    /// and closes. The next getInstance() makes a new one.
    static void destroyInstance(bool save = true);

    SQLite(const SQLite&) = delete;
    SQLite& operator=(const SQLite&) = delete;

    /// False when the runtime database could not be created.
    bool hasRuntimeConnection() const { return m_runtime != nullptr; }
    /// The connection that operations run on now; null without one.
    Connection* runtime() const { return m_runtime; }

    /// Start-up is complete.
    bool ready() const { return m_ready; }
    void setReady() { m_ready = true; }
    /// The permanent configuration, or a database file, could not be loaded.
    bool loadError() const { return m_loadError; }
    void setLoadError() { m_loadError = true; }
    /// Whether a commit also saves the runtime database into the dump file.
    bool databaseDumpEnabled() const { return m_databaseDumpEnabled; }
    void setDatabaseDumpEnabled(bool enabled) { m_databaseDumpEnabled = enabled; }
    bool attributeSynchronisationEnabled() const { return m_attributeSynchronisationEnabled; }
    void setAttributeSynchronisationEnabled() { m_attributeSynchronisationEnabled = true; }
    /// From now on inserts into the common database are skipped.
    void lockCommonDatabase() { m_commonDatabaseLocked = true; }
    /// The file that loadOrSaveDb() works on.
    const std::string& databaseFile() const { return m_databaseFile; }
    void setDatabaseFile(std::string path) { m_databaseFile = std::move(path); }
    /// TamoResetReason code of this start.
    std::int32_t resetReason() const { return m_resetReason; }

    // --- Files (SQLite_Files.cpp) ------------------------------------------------------------

    enum class Direction { load = 0, save = 1 };

    /// Copies the whole database between the database file and the runtime connection. A missing
    /// file is created with the schema. Returns an SQLite code, 0 on success; 1 during shut-down.
    int loadOrSaveDb(Direction direction);

    /// Rebuilds the index `unique_object`; 0 on success, else the SQLite code.
    int convertToCurrentVersion();

    /// True for a regular file that is not empty. An empty one is removed.
    static bool CheckIfFileExists(const std::string& path);

    /// True when the table exists exactly once.
    static bool checkDBTable(Connection& connection, const char* name);
    static bool checkDBTables(Connection* connection);

    /// Removes a file of the permanent configuration directory; true when it is gone.
    bool removeDatabaseFile(const std::string& name);

    /// Sets the shut-down flag, then removes the permanent configuration file.
    bool shutdownDB();

    /// Directories of the common and of the backup database.
    std::string getCommonDbPath() const;
    std::string getBrMBackupDbPath() const;

    // --- Addressing (SQLite_Addressing.cpp) --------------------------------------------------

    /// Classes and instances in order; none for a text without pairs.
    std::vector<std::string> tokenize_dn(const std::string& dn) const;
    /// The instance of the DN's last pair, or its class; "unInitialised" when there is none.
    std::string get_object_name(const std::string& dn, bool wantClass) const;
    /// True when there are at least two pairs.
    bool splitDnPath(const std::string& dn, std::vector<std::string>& pairs) const;
    /// Nested select of the id of the object that the pairs name, top first. A pair with % is a
    /// prefix pattern, % standing for any text; quotes and underscores are plain characters.
    std::string createSelectIdSql(const std::vector<std::string>& pairs) const;

    /// The id of an object, 0 when there is none. Several pairs are followed from the root, else
    /// from wherever the first one is found; MOInstance and parent id count for a single pair only.
    std::int32_t get_object_id(const std::string& dn, std::int32_t MOInstance, std::int32_t parentId = 0);
    /// The child with this pair, whatever its MOInstance; 0 when there is none.
    std::int32_t get_object_id_with_parent(const std::string& pair, std::int32_t parentId);
    /// All pairs from the root; empty for an id that is not stored.
    std::string get_whole_dn(std::int32_t objectId);
    /// The whole DN of a stored object; empty when it is not stored.
    std::string get_whole_dn(const std::string& dn, const std::string& parentDn);

    bool checkIdPresence(std::int32_t objectId);
    /// As above, but also true when the question could not be answered.
    bool idExists(std::int32_t objectId);
    /// Gives the object the new pair; false when there is one of that name, or no old one.
    bool updateDn(const std::string& oldDn, const std::string& newDn);
    /// Current UTC time, "YYYY-MM-DD hh:mm:ss".
    std::string FormatCurrentUtcTime() const;

    // --- Queries (SQLite_Query.cpp, SQLite_ClassQuery.cpp) -------------------------------------

    /// The object with its attributes and alternate attributes; null when it is not stored.
    std::unique_ptr<DBObject> sql_get_object(std::int32_t objectId, const std::string& client);
    std::unique_ptr<DBObject> sql_get_object(const std::string& dn, std::int32_t MOInstance, const std::string& client);
    /// The live attribute, or the one parked in alternate storage; null when there is none.
    std::unique_ptr<Attribute> sql_get_attribute(std::int32_t objectId, const std::string& name,
                                                 const std::string& client, bool fromAlternateStorage);
    std::unique_ptr<Attribute> sql_get_attribute(const std::string& dn, const std::string& name,
                                                 const std::string& client, bool fromAlternateStorage);
    /// All objects of a class but struct members.
    Objects get_MO_class(const std::string& moClass);
    /// The instances of a class below a parent; of those without a parent when it is not stored.
    std::vector<std::string> get_MO_class_with_parent(const std::string& parentDn, const std::string& moClass);
    Objects get_all_children(const std::string& parentDn, std::int32_t parentMOInstance, std::int32_t parentId = 0);
    /// Appends the ids of all descendants, parent before child; `skipStructs` leaves struct members
    /// and what is below them out.
    void getAllChildIds(const std::string& dn, std::int32_t MOInstance, std::vector<std::int32_t>& ids,
                        bool skipStructs, std::int32_t objectId);
    /// The stored pairs of a class.
    std::vector<std::string> getMoClassDnList(const std::string& moClass);
    /// The whole DN of the first object that matches a DN with % in it; the argument when none does.
    std::string getMoClassInstance(const std::string& pattern);
    bool checkAttributeExistence(const std::string& name, std::int32_t objectId);
    bool sql_isPresent(const std::string& dn, std::int32_t MOInstance);
    bool isReadyForOssSync(const std::string& client);
    /// Reads the auto-integration phase from the attribute AI_phase of "OAM"; 4 means completed.
    /// Leaves `phase` alone when it cannot be read, so callers preset what "unknown" means to them
    /// (-2 today).
    void getAIPhase(std::int32_t& phase);
    bool checkPersistentDataExistenceFromDB();
    /// The pair to store for `pair`, so that one instance of each singleton class is kept.
    std::string alignSingletonDn(const std::string& pair);

    // --- Writes (SQLite_Insert.cpp, SQLite_Update.cpp, SQLite_Delete.cpp) ----------------------

    /// The type code that an alternative of Value stands for; 0, logged, for one that is not stored.
    static std::int32_t getAttributeValueType(std::size_t alternative);
    /// Stores an object with its attributes; one that exists already is updated. The container gets
    /// the parent id and parent MOInstance that were found, and its time stamps.
    bool sql_insert(DBObject* object, bool inTransaction, const std::string& client);
    /// Writes the changed attributes of a stored object. A container that carries ids and DNs is
    /// found by its DNs when the two differ, so it does not move an object; one without a parent DN
    /// moves it to its parent id.
    bool sql_update(DBObject* object, bool inTransaction, const std::string& client);
    /// True when the stored value is this very value, kind and content.
    bool checkIsSameValue(const Value& value, std::int32_t storedType, std::string_view storedText,
                          const Value& stored) const;
    /// Removes an object with everything below it, unless something outside refers to any of it.
    bool delete_object(const std::string& dn, std::int32_t MOInstance, bool inTransaction, const std::string& client);
    bool deleteAttribute(const std::string& name, std::int32_t objectId, bool inTransaction);
    /// True when a reference attribute outside `deletedDns` names the DN.
    bool checkReference(const std::string& wholeDn, const std::vector<std::string>& deletedDns);

    // --- References (SQLite_Reference.cpp) ---------------------------------------------------

    /// Adds the referrer to the "reservedBy" of every target in the value. Throws
    /// std::bad_variant_access when a "reservedBy" is no text.
    void setReference(const std::string& value, const std::string& referrer, bool inTransaction);
    /// Takes the referrer out of the "reservedBy" of every target. Throws as above.
    void removeSingleReference(const std::string& value, const std::string& referrer, bool inTransaction);
    /// Withdraws all references that an object holds.
    void removeReference(std::int32_t objectId, bool inTransaction);

    // --- Transactions (SQLite_Transaction.cpp) -------------------------------------------------

    bool sql_start_transaction();
    bool sql_commit_transaction();
    bool sql_rollback_transaction();
    /// A transaction that sql_start_transaction() opened is open.
    bool transactionOpen() const;
    /// Rolls back a transaction that somebody left open, with an error line; true when there was one.
    bool rollbackLeftOver();

    // --- Change capture (SQLite_Capture.cpp) ---------------------------------------------------

    /// Makes notification items of the rows changed so far. To be called after the last statement of
    /// a write and before its commit, while the rows can be read. Never fails the write.
    void sql_collectDnInstPairs();
    void sql_collectOneDnInstPair(Connection* connection, const ChangedRow& row);
    void sql_collectOnePair_DBObject(Connection* connection, int operation, std::int64_t rowId);
    /// The attribute is taken for one of the object whose item is the last in the list.
    void sql_collectOnePair_Attribute(Connection* connection, int operation, std::int64_t rowId, bool alternate);
    void sql_eraseDuplicateFomDnInstList(const NotificationItem& item);

    /// While the guard lives, no change is captured.
    FlagScope withoutNotifications() { return FlagScope(m_notificationsDisabled); }
    bool notificationsDisabled() const { return m_notificationsDisabled; }
    /// While the guard lives, changes are captured as consequences of others, told after those, and
    /// commits deliver nothing.
    FlagScope synchronising() { return FlagScope(m_synchronising); }
    /// While the guard lives, everything is captured as storageLoading.
    FlagScope loadingAlternateStorage() { return FlagScope(m_loadingAlternateStorage); }

    // --- Delivery (SQLite_Notify.cpp) ----------------------------------------------------------

    /// Who is told of changes from now on; null for nobody.
    void announceTo(ChangeSink* sink) { m_sink = sink; }
    /// Tells the sink what was captured since the last delivery. May be entered again by a sink that
    /// writes. Never throws.
    void sql_sendNotifications();

    // --- Recovery (persistence/SQLite_Recovery.cpp) --------------------------------------------

    /// Opens the file and runs SQLite's integrity check and the table check on it.
    bool checkDbIntegrity(const std::string& file);
    /// Checks the runtime file; a damaged one orders a reset, and a software fallback when the
    /// permanent file is damaged as well. True when the runtime file passes.
    bool doIntegrityCheck();
    bool requestFallbackFromMw();
    bool prepareSwFallback(int partition);
    void doFallback();
    void resetRBS(std::int32_t reason, std::int32_t second);
    void sendFaultNotif(std::int32_t faultCode, bool raise);
    /// Puts a reset reason into the common database, for the next start to find.
    void recordResetReason(std::int32_t reason);

    // --- Common database (persistence/SQLite_CommonDb.cpp) -------------------------------------

    /// Writes an object into the common database file, in a transaction of its own. The two unused
    /// arguments belong to the interface.
    bool sql_insert_to_commondb(DBObject* object, bool inTransaction, int unused, const std::string& client,
                                bool saveCurrentFirst);
    void insertResetReason();

    // --- Start-up (persistence/SQLite_StartUp.cpp) ---------------------------------------------

    /// True when the permanent configuration is in the runtime database.
    bool loadPermanentConfFile();
    void DeletepRBSdbFileWhenGoldenSWIsInUse();
    /// The partition the node started from; the middleware's status, 0 on success.
    int getPartition(int& partition);
    /// Compares the loaded configuration's system mode with the middleware's, and tells the middleware
    /// to activate it, or to take it over. True when both are the same.
    bool validateSystemMode();
    /// 1 when there is something a restore could have left: auto-integration data or a permanent file.
    int check_pRBSdb_and_aipersistentdata_files();

    // --- Storing to flash (persistence/SQLite_Store.cpp) ---------------------------------------

    /// Writes the persistent part of the tree to the permanent file when it differs from what is
    /// there. True when there was nothing to do or it was stored.
    bool storeDbToFlash();
    /// Writes the persistent part of the tree, always: to the permanent file, or for a backup to the
    /// directory of backups, without software inventory, backup administration and parked values.
    bool storePersistentDump(bool backup);
    /// The number of lines with a hyphen in the difference of two databases' dumps, which is 0 for
    /// equal ones; -1 when it could not be read.
    static int IsPersistentAttributesChanged(const std::string& first, const std::string& second,
                                             const std::string& scratchDirectory);

    // --- Side stores (persistence/SQLite_BackupFragments.cpp, SQLite_Maintenance.cpp) ------------

    /// Merges the software inventory and the backup administration into the backup database. True
    /// also when the tree holds neither.
    bool storeBrMBackup();
    /// Makes the values parked in a slot the live ones, all or none.
    bool loadAlternateStorage(std::int32_t slot);
    /// Empties the tree, parked values included, and removes the permanent file.
    bool cleanDatabase();

    // --- Attribute synchronisation (persistence/SQLite_AttributeSync.cpp) -----------------------

    /// Appends the pairs of the mapping file to the list. False, logged, when the file cannot be read; pairs
    /// in front of a fault in it are kept.
    bool parseDeprecatedAttributeMappingXML();
    /// Copies a value across every pair, from the second side where it has one. Always true.
    bool syncAttributes();
    /// Whether the attribute belongs to a pair; fills in the other side of the first one.
    bool checkIsAttrSyncNeeded(const std::string& dn, const std::string& name, std::string& otherDn,
                               std::string& otherName);
    /// Mirrors a committed change of an attribute (whole DN; operation is a ChangeOperation) onto the other
    /// side of its pair, if it has one, in a transaction of its own. A failed write is logged by the
    /// operation that failed; false only for an operation that is none.
    bool SyncAttribute(const std::string& dn, const std::string& name, const Value& value, std::int32_t operation);
    /// Whether a change of the attribute is not to be mirrored, because its successor was changed with it:
    /// `isChanged` (whole DN, attribute) knows the changes that belong together. Mirrored one after the other
    /// the two would swap their values.
    using IsChanged = std::function<bool(const std::string& dn, const std::string& name)>;
    bool yieldsToSuccessor(const std::string& dn, const std::string& name, const IsChanged& isChanged);
    /// Gives a live attribute the value, making it, and its object, where they are missing.
    void updateAttribute(const std::string& dn, const std::string& name, const Value& value);

private:
    friend class ConnectionSwap;

    /// The objects that name a DN in a reference attribute, by that DN.
    using Referrers = std::unordered_map<std::string, std::vector<std::int32_t>>;

    /// Longer chains of parents are taken for a damaged file's ring.
    static constexpr int maxLevels = 100000;

    SQLite();
    ~SQLite();
    void createRuntimeDatabase();
    void closeRuntime();
    bool renewRuntime();
    static int sql_commitCallback(void* store);
    static void sql_updateCallback(void* store, int operation, const char* database, const char* table,
                                   long long rowId);

    /// The guard of every operation: true, logged, during shut-down; true without a connection.
    bool unavailable(const char* operation) const;
    bool shutDownOngoing(const char* operation) const;

    int openDatabaseFile(Connection& file, Direction direction);
    int createSchema(Connection& file) const;
    int copyDatabase(Connection& destination, Connection& source) const;
    int copyOnce(Direction direction);
    std::optional<int> storedSystemMode();
    bool namesProtectedFile() const;
    void saveAfterCommit();

    void forgetLookups();
    void forgetWholeDn();
    void forgetFor(const std::string& newPair);
    std::optional<ObjectRow> objectRow(std::int32_t objectId, int& result);
    std::optional<ObjectRow> objectRow(std::int32_t objectId);
    bool cachedIdStands(const std::vector<std::string>& pairs, const std::string& dn, std::int32_t MOInstance,
                        std::int32_t parentId);
    std::int32_t findSinglePair(const std::string& pair, std::int32_t MOInstance, std::int32_t parentId, int& result);
    std::int32_t followPairs(std::int32_t fromId, std::span<const std::string> pairs, int& result);
    std::int32_t followFromRoot(const std::string& dn, std::span<const std::string> pairs, int& result);
    std::int32_t followFromInside(std::span<const std::string> pairs, int& result);
    bool holdsPairWithComma(int& result);
    std::int32_t findWholeText(const std::string& dn, std::int32_t MOInstance, int& result);
    std::string walkUp(std::int32_t objectId, int& result);
    std::int32_t findPath(const std::string& dn, const std::vector<std::string>& pairs, std::int32_t MOInstance,
                          int& result);

    bool readObjectRow(DBObject& object, std::int32_t objectId, const std::string& client);
    bool readAttributes(DBObject& object);
    bool readinessUnknown(const char* operation, int result);
    std::string classOf(const std::string& pair) const;
    std::int32_t firstMatch(const std::vector<std::string>& pairs, int& result);

    void checkParentId(DBObject& object);
    void resolveParent(DBObject& object);
    std::int32_t childWithInstance(const std::string& pair, std::int32_t parentId, std::int32_t MOInstance);
    bool idIsStale(const DBObject& object, const std::string& pair);
    bool reachesItself(std::int32_t objectId, std::int32_t newParent);
    class WriteOperation;
    class InsertOperation;
    class UpdateOperation;
    class StartUpLoad;

    bool readReferrers(Referrers& referrers);
    const Referrers& currentReferrers();
    void forgetReferrers();
    void forgetDeleted(std::int64_t objectId) noexcept;
    bool blocksDeletion(const Referrers& referrers, const std::string& wholeDn,
                        const std::unordered_set<std::string>& deletedDns);
    int deleteRows(std::int32_t objectId);
    int deleteDeepestFirst(std::int32_t objectId);

    std::string wholeDnField(const std::string& pair, std::int32_t objectId, std::int32_t parentId);
    void collectStructOwner(const NotificationItem& member, std::int32_t ownerId);
    void captureDeletion(std::int32_t objectId);
    void captureAttributeDeletion(std::int32_t objectId, const std::string& name);
    bool capturesDeletions() const;
    StorageKind kindOf(StorageKind table) const;
    /// False while another database is swapped in, whose changes are nobody's business.
    bool onOwnRuntime() const { return m_runtime == m_ownRuntime.get(); }
    NotificationList& activeList();
    void forgetChanges();
    enum class Origin { client, synchronisation };
    void walk(const std::vector<NotificationItem>& items, Origin origin);
    void synchronise(const NotificationItem& item, const IsChanged& isChanged);
    void announceObject(std::span<const NotificationItem> group, std::int32_t operation);
    void followFeatureState(const NotificationItem& item);

    std::unique_ptr<Connection> m_ownRuntime;
    Connection* m_runtime = nullptr; // m_ownRuntime, or the one swapped in
    std::string m_runtimeFile;
    std::string m_databaseFile;
    std::unique_ptr<TAMO::Framework::NamedSemaphore> m_persistentDbSemaphore;
    ChangeSink* m_sink = nullptr;

    std::vector<ChangedRow> m_changedRows; // not collected yet
    NotificationList m_changes;
    NotificationList m_synchronised;       // filled instead while m_synchronising
    std::size_t m_synchronisedAtBegin = 0; // its length when the open transaction began
    AttributeSyncPairs m_syncPairs{[this](const std::string& pattern) { return getMoClassInstance(pattern); }};
    bool m_ownerKnown = true; // the object whose attribute rows come next could be read
    bool m_notificationsDisabled = false;
    bool m_synchronising = false;
    bool m_loadingAlternateStorage = false;

    bool m_shutDown = false;
    bool m_ready = false;
    bool m_loadError = false;
    bool m_databaseDumpEnabled = true;
    bool m_attributeSynchronisationEnabled = false;
    bool m_commonDatabaseLocked = false;
    // Of the open transaction. Whoever writes reference attributes forgets them.
    std::optional<Referrers> m_referrers;
    std::unordered_set<std::int32_t> m_goneHolders; // objects deleted since they were read

    bool m_transactionOpen = false;
    bool m_committing = false;
    bool m_checkingIntegrity = false;
    std::int32_t m_resetReason = 12;

    std::string m_lastDn; // of the last look-up by DN, with its result
    std::int32_t m_lastId = 0;
    std::int32_t m_lastWholeDnId = 0; // of the last walk to the root, with its result
    std::string m_lastWholeDn;
    PathCache m_parents;
    InnerStarts m_innerStarts;
    std::optional<bool> m_holdsPairWithComma; // whether any object's own pair does
    static constexpr const char* oamPair = "OAM";
    std::optional<std::vector<std::int32_t>> m_oamIds; // of the objects with that pair; none when not looked up
};
