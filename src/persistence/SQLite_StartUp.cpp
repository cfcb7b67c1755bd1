// Decisions at start-up: what the started partition means for the permanent configuration, and
// whether that is loaded.

#include "persistence/StartUpLoad.h"
#include "store/FileLocations.h"

#include "platform/middleware/Log.h"
#include "platform/utility/SystemFunctions.h"

int SQLite::getPartition(int& partition)
{
    const int status = mw_api_pwr_started_partition_get(&partition);
    LOG_DEBUG("SQLite::%s, mw_api_pwr_started_partition_get status=%d and partition=%d", __func__, status, partition);
    return status;
}

void SQLite::DeletepRBSdbFileWhenGoldenSWIsInUse()
{
    int partition = 5;
    if (getPartition(partition) != 0) {
        LOG_ERROR("SQLite::%s, mw_api_pwr_started_partition_get failed", __func__);
        return;
    }
    if (partition != goldenPartition) {
        LOG_DEBUG("SQLite::%s, Started partition is not golden partition %d", __func__, partition);
        return;
    }
    LOG_DEBUG("SQLite::%s, Started golden partition is in use and Remove pRBS file!", __func__);
    removeDatabaseFile("pRBSdb");
    LOG_DEBUG("SQLite::%s, Set golden partition to be active in case of button factory reset", __func__);
    if (mw_api_pwr_active_partition_set(goldenPartition) != 0)
        LOG_INFO("SQLite::%s, Failed to activate golden partition", __func__);
}

bool SQLite::loadPermanentConfFile()
{
    m_resetReason = 12;
    if (shutDownOngoing(__func__) || !m_runtime)
        return false;
    const FlagScope quiet = withoutNotifications(); // nobody has subscribed yet
    return StartUpLoad(*this).run();
}

int SQLite::check_pRBSdb_and_aipersistentdata_files()
{
    LOG_DEBUG("SQLite::%s() START", __func__);
    const std::string integrationData = getPath("AI_CONFIG_FILE_PATH", "/var/persistent/tmp") + "/aipersistentdata.xml";
    const int found = CheckIfFileExists(integrationData) || CheckIfFileExists(permanentFile()) ? 1 : 0;
    LOG_DEBUG("SQLite::%s() Returning %d", __func__, found);
    return found;
}
