// Requests about the database as a whole.

#include "requests/DatabaseWrapper.h"

#include "requests/Serve.h"

using namespace TAMO::Messages;

void DatabaseWrapper::handleOrderReady(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleOrderReady NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleOrderReady transId:%d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleOrderReady SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBOrderReadyRsp;
    serve<TAMO_DBOrderReady, Answer>(raw, lines, [](const TAMO_DBOrderReady& request, const Client&) {
        return std::optional<Answer>(std::in_place, SQLite::getInstance().ready(), request.transId);
    });
}

void DatabaseWrapper::handleStoreBrMBackup(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleStoreBrMBackup NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::handleStoreBrMBackup transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleStoreBrMBackup SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBStoreBrMBackupRsp;
    serve<TAMO_DBStoreBrMBackup, Answer>(raw, lines, [](const TAMO_DBStoreBrMBackup& request, const Client&) {
        return std::optional<Answer>(std::in_place, request.transId, SQLite::getInstance().storeBrMBackup());
    });
}

void DatabaseWrapper::handleDBIntegrityCheck(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_DEBUG("Database DatabaseWrapper::handleDBIntegrityCheck NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_INFO("DatabaseWrapper::handleDBIntegrityCheck DB integrity check requested by %s transId %d",
                         client, transId);
            }};
    serve<TAMO_DBIntegrityCheck, NoAnswer>(raw, lines, [](const TAMO_DBIntegrityCheck&, const Client&) {
        SQLite::getInstance().doIntegrityCheck();
        return std::optional<NoAnswer>();
    });
}

void DatabaseWrapper::handleCleanDatabase(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleCleanDatabase NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper:: starting handleCleanDatabase transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleCleanDatabase SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBCleanDatabaseRsp;
    serve<TAMO_DBCleanDatabase, Answer, FileLock::none>(
        raw, lines, [this](const TAMO_DBCleanDatabase& request, const Client&) {
            const bool cleaned = SQLite::getInstance().cleanDatabase();
            reconsiderDelayedStores(); // what put them off is gone, and nobody was told
            return std::optional<Answer>(std::in_place, cleaned, request.transId);
        });
}

void DatabaseWrapper::handleShutdownDb(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleShutdownDb NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper:: starting handleShutdownDb transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_DEBUG("DatabaseWrapper::handleShutdownDb SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBShutdownDbRsp;
    LOG_INFO("Starting to shut down functions!");
    serve<TAMO_DBShutdownDb, Answer>(raw, lines, [](const TAMO_DBShutdownDb& request, const Client&) {
        const bool done = SQLite::getInstance().shutdownDB();
        if (done)
            LOG_INFO("Database shut down and dump file deleted!");
        return std::optional<Answer>(std::in_place, done, request.transId);
    });
}

void DatabaseWrapper::handleLoadAlternateStorage(const RawMessage* raw)
{
    static constexpr HandlerLines lines{
        .noMessage = [] { LOG_ERROR("Database DatabaseWrapper::handleLoadAlternateStorage NULL message"); },
        .received =
            [](std::int32_t transId, const char* client) {
                LOG_DEBUG("DatabaseWrapper::LoadAlternateStorage transId: %d client: %s", transId, client);
            },
        .notSent = [] { LOG_ERROR("DatabaseWrapper::handleLoadAlternateStorage SendRsp NotSuccessful"); }};
    using Answer = TAMO_DBLoadAlternateStorageRsp;
    serve<TAMO_DBLoadAlternateStorage, Answer, FileLock::none>(
        raw, lines, [](const TAMO_DBLoadAlternateStorage& request, const Client&) {
            const bool loaded = SQLite::getInstance().loadAlternateStorage(request.slot);
            return std::optional<Answer>(std::in_place, IPCData::IPCdataRsp{}, request.transId, loaded);
        });
}
