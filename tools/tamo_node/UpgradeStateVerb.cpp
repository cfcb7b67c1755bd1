// The verb upgrade-state: a client that tells the node how far a software upgrade is.
#include "Access.h"
#include "Verbs.h"

#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"
#include "values/ValueType.h"

namespace {
constexpr const char* upgradePackage = "UpgradePackage=1";
}

int upgradeState(const std::string& directory, std::int32_t state)
{
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    try {
        ServiceClient client({layout->sockets(), "tamo_node", {}, std::chrono::seconds(10)});
        Database database(client);
        const bool there = database.exists(upgradePackage);
        DBObject package = newObject(upgradePackage);
        static_cast<void>(package.addAttribute(newAttribute("state", state, IPCData::INT32)));
        if (there ? database.update(package) : database.insert(package))
            return exitSuccess;
        return fail("the service refused state " + std::to_string(state) + " of " + upgradePackage);
    } catch (const ClientError& error) {
        return fail(error.what());
    }
}
