// The verbs that act on the database as a whole, against a node that notes what it is asked.

#include "TamoctlRun.h"

#include "platform/host/MessageNode.h"
#include "platform/messages/Answers.h"
#include "platform/utility/DBObject.h"

#include <functional>
#include <nlohmann/json.hpp>

namespace {

using namespace TAMO::Messages;

class MaintenanceVerbs : public Tamoctl {
protected:
    MaintenanceVerbs() : m_node({.directory = directory.path(), .name = "db", .id = 0})
    {
        m_node.setHandler([this](const std::shared_ptr<RawMessage>& raw) { handle(*raw); });
        EXPECT_TRUE(m_node.start());
    }
    ~MaintenanceVerbs() override { m_node.stop(); }

    /// What was asked since the last call, in order; reads are not told.
    std::string asked() { return std::exchange(m_asked, {}); }

    bool answer = true;
    std::optional<std::int32_t> phase = 4; ///< AI_phase of OAM
    std::optional<std::int32_t> upgradeState;

private:
    void handle(const RawMessage& raw)
    {
        const auto number = [](bool flag) { return std::to_string(static_cast<int>(flag)); };
        serve<TAMO_DBStorePersistentDump>(raw, [&](const auto& request) {
            m_asked += "store " + number(request.backup) + number(request.ignoreUpgradeState) + ";";
            return TAMO_DBStorePersistentDumpRsp({}, request.transId, answer);
        });
        serve<TAMO_DBLoadAlternateStorage>(raw, [&](const auto& request) {
            m_asked += "load " + std::to_string(request.slot) + ";";
            return TAMO_DBLoadAlternateStorageRsp({}, request.transId, answer);
        });
        serve<TAMO_DBStoreBrMBackup>(raw, [&](const auto& request) {
            m_asked += "fragments;";
            return TAMO_DBStoreBrMBackupRsp(request.transId, answer);
        });
        serve<TAMO_DBCleanDatabase>(raw, [&](const auto& request) {
            m_asked += "clean;";
            return TAMO_DBCleanDatabaseRsp(answer, request.transId);
        });
        serve<TAMO_DBShutdownDb>(raw, [&](const auto& request) {
            m_asked += "shutdown;";
            return TAMO_DBShutdownDbRsp(answer, request.transId);
        });
        serve<TAMO_EnableAttrSync>(raw, [&](const auto& request) {
            m_asked += "enable;";
            return TAMO_EnableAttrSyncRsp(answer, request.transId);
        });
        serve<TAMO_DBOrderReady>(raw, [&](const auto& request) {
            m_asked += "ready;";
            return TAMO_DBOrderReadyRsp(true, request.transId);
        });
        serve<TAMO_DBFetchAttr>(raw, [&](const auto& request) { return attribute(request); });
        if (raw.id == TAMO_DBIntegrityCheck::id)
            m_asked += "integrity;";
    }
    template <class Request, class Serve>
    void serve(const RawMessage& raw, Serve answerTo)
    {
        Request request;
        if (raw.id != Request::id)
            return;
        EXPECT_TRUE(request.deserialize(&raw));
        m_node.send(raw.sender, answerTo(request));
    }
    TAMO_DBFetchAttrRsp attribute(const TAMO_DBFetchAttr& request) const
    {
        const auto& value = request.dn == "OAM" ? phase : upgradeState;
        TAMO_DBFetchAttrRsp found;
        found.transId = request.transId;
        found.data.result = value ? 0 : 1;
        if (value)
            found.length =
                DBObject::SerializeAttrforDB({false, request.attributeName, *value, 0, false, 3, false, false},
                                             found.data.data, IPCData::dataCapacity, found.uncompressedSize);
        return found;
    }

    std::string m_asked; // written by the node's thread while tamoctl runs
    TAMO::Framework::MessageNode m_node;
};

std::string outcome(const Result& result) { return nlohmann::json::parse(result.output).at("outcome"); }

} // namespace

TEST_F(MaintenanceVerbs, SendTheirRequestAndTellTheAnswer)
{
    const std::pair<const char*, const char*> verbs[] = {{"store", "store 00;"},
                                                         {"store --backup", "store 10;"},
                                                         {"store --ignore-upgrade", "store 01;"},
                                                         {"backup-fragments", "fragments;"},
                                                         {"clean --force", "clean;"},
                                                         {"shutdown --force", "shutdown;"},
                                                         {"load-slot 7", "load 7;"},
                                                         {"enable-sync", "enable;"}};
    for (const auto& [verb, request] : verbs) {
        answer = true;
        const Result done = run(verb);
        EXPECT_EQ(done.code, 0) << verb << done.error;
        EXPECT_TRUE(isOneLine(done.output)) << verb;
        EXPECT_EQ(asked(), request);
        EXPECT_EQ(nlohmann::json::parse(run(std::string(verb) + " --json").output).at("success"), true) << verb;
        answer = false;
        const Result refused = run(verb);
        EXPECT_EQ(refused.code, 1) << verb;
        EXPECT_TRUE(isOneLine(refused.error) && refused.output.empty()) << refused.error;
        asked();
    }
    for (const char* usage : {"load-slot", "load-slot -1", "load-slot x", "store now"})
        EXPECT_EQ(run(usage).code, 2) << usage;
    EXPECT_EQ(asked(), "");
}

TEST_F(MaintenanceVerbs, NothingIsDestroyedWithoutForceOrInsideATransaction)
{
    for (const char* verb : {"clean", "shutdown"}) {
        const Result refused = run(verb);
        EXPECT_EQ(refused.code, 2);
        EXPECT_NE(refused.error.find("permanent configuration"), std::string::npos) << refused.error;
    }
    for (const char* verb :
         {"store", "backup-fragments", "integrity", "clean --force", "shutdown --force", "load-slot 1", "enable-sync"})
        EXPECT_EQ(run(std::string("transaction --abort -- ") + verb).code, 2) << verb;
    EXPECT_EQ(asked(), "");
}

TEST_F(MaintenanceVerbs, StoreTellsWhatTheServicesTrueMeans)
{
    EXPECT_EQ(outcome(run("store --json")), "stored");
    phase = 3;
    EXPECT_EQ(outcome(run("store --json")), "notYet");
    EXPECT_EQ(outcome(run("--as AutointegrationManagement store --json")), "stored");
    phase.reset();
    EXPECT_EQ(outcome(run("store --json")), "notYet");
    phase = 4;
    for (const std::int32_t state : {2, 4, 8}) {
        upgradeState = state;
        EXPECT_EQ(outcome(run("store --json")), "delayed") << state;
        EXPECT_EQ(outcome(run("store --ignore-upgrade --json")), "stored") << state;
    }
    upgradeState = 1;
    EXPECT_EQ(outcome(run("store --json")), "stored");
}

TEST_F(MaintenanceVerbs, IntegrityEndsWhenTheServiceHasHandledIt)
{
    const Result result = run("integrity");
    EXPECT_EQ(result.code, 0) << result.error;
    EXPECT_NE(result.output.find("log"), std::string::npos) << result.output;
    EXPECT_EQ(asked(), "integrity;ready;"); // the answer to the second tells that the first is over
}
