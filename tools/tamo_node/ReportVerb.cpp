// The verb report: tells the service what has changed, as the node's management agent does after a commit of
// its own.
#include "Access.h"
#include "ReportJson.h"
#include "Verbs.h"

#include "platform/messages/Answers.h"
#include "platform/messages/Requests.h"
#include "tools/client/ServiceClient.h"

#include <chrono>

using namespace TAMO::Messages;

namespace {

/// A report whose references are many takes a commit for each.
constexpr std::chrono::minutes patience{5};

} // namespace

int report(const std::string& directory, const std::string& file)
{
    const auto layout = existing(directory);
    if (!layout)
        return exitFailure;
    TAMO_MOAccessReport message;
    try {
        message = readReport(file);
    } catch (const std::exception& error) {
        fail(error.what());
        return exitUsage;
    }
    try {
        ServiceClient client({layout->sockets(), "tamo_node", {}, std::chrono::seconds(10)});
        client.send(message);
        // The service takes our messages in order: with this answer it has handled the report.
        TAMO_DBOrderReady question;
        static_cast<void>(client.request<TAMO_DBOrderReadyRsp>(question, patience));
        return exitSuccess;
    } catch (const ClientError& error) {
        fail(error.what());
        return error.kind == Trouble::tooLarge ? exitUsage : exitFailure;
    }
}
