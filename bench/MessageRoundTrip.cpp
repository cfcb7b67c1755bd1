// Measures a request's way through the framework and back, without a database behind it: client
// node, socket, I/O thread, state machine, answer. A program to run by hand:
//
//     build/bench/bin/message_round_trip [REQUESTS [CLIENTS]]

#include "platform/framework/FrameworkCore.h"
#include "platform/framework/Messaging.h"
#include "platform/host/MessageNode.h"
#include "platform/messages/Answers.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <semaphore>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace TAMO::Framework;
using namespace TAMO::Messages;

namespace {

class Responder : public ActiveStateMachine {
public:
    Responder() : ActiveStateMachine(2000, 1999, "responder") {}
    bool dispatch(Event& event) override
    {
        if (event.id() == terminateRequested)
            enterState(1999);
        if (event.id() != messageReceived)
            return true;
        const RawMessage* raw = static_cast<MessageEvent&>(event).raw();
        TAMO_DBPresence request;
        if (request.deserialize(raw))
            Messaging::sendTamoMessage_v2(Messaging::getMsgSender(raw), TAMO_DBPresenceRsp(true, request.transId), 1);
        return true;
    }
};

int serve(const std::string& directory)
{
    setenv("TAMO_FRAMEWORK_DIR", directory.c_str(), 1);
    FrameworkCore core;
    core.initialize();
    if (!Control::FrameworkControl::initialize({"--node", "db"}))
        return 1;
    Responder responder;
    responder.initialise();
    Messaging::registerMessageHandler(responder, messageReceived);
    responder.start();
    responder.thread().join();
    Control::FrameworkControl::finalize();
    core.finalize();
    return 0;
}

void measure(const std::string& directory, std::int32_t clientId, int requests)
{
    std::counting_semaphore<> answered(0);
    MessageNode client(
        {.directory = directory, .name = "client", .id = clientId, .listen = false, .connectTo = {"db"}});
    client.setHandler([&](const std::shared_ptr<RawMessage>&) { answered.release(); });
    if (!client.start())
        return;
    while (client.peerName(0).empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    TAMO_DBPresence request;
    request.dn = "ManagedElement=1,Equipment=1";
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(requests));
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < requests; ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (!client.send(0, request))
            return;
        answered.acquire();
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    const std::chrono::duration<double> total = std::chrono::steady_clock::now() - begin;
    std::ranges::sort(micros);
    const auto at = [&](double part) {
        return micros[static_cast<std::size_t>(part * static_cast<double>(requests - 1))];
    };
    std::printf("%d round trips, %.0f a second, us: p50 %.1f  p90 %.1f  p99 %.1f\n", requests, requests / total.count(),
                at(0.5), at(0.9), at(0.99));
}

template <class Body>
pid_t inChild(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::fflush(stdout);
        _exit(0);
    }
    return child;
}

} // namespace

int main(int count, char** arguments)
{
    const int requests = count > 1 ? std::max(1, std::atoi(arguments[1])) : 50'000;
    const int clients = count > 2 ? std::max(1, std::atoi(arguments[2])) : 1;
    char directory[] = "/tmp/round_trip_XXXXXX";
    if (!mkdtemp(directory))
        return 1;
    const pid_t server = inChild([&] { serve(directory); });
    std::vector<pid_t> children;
    children.reserve(static_cast<std::size_t>(clients));
    for (int i = 0; i < clients; ++i)
        children.push_back(inChild([&] { measure(directory, 100 + i, requests); }));
    for (const pid_t child : children)
        waitpid(child, nullptr, 0);
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    std::filesystem::remove_all(directory);
    return 0;
}
