#pragma once

#include "platform/host/MessageNode.h"
#include "platform/messages/RawMessage.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Messages on their way from the I/O threads to the supervisor's loop.
class Mailbox {
public:
    Mailbox();
    ~Mailbox();
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    void put(std::shared_ptr<RawMessage> message);
    std::vector<std::shared_ptr<RawMessage>> takeAll();
    /// Readable while there are messages.
    int bell() const { return m_bell; }

private:
    int m_bell;
    std::mutex m_mutex;
    std::vector<std::shared_ptr<RawMessage>> m_messages;
};

/// The nodes of the framework that stand in for fault management and the reset service, for one boot.
class StandIns {
public:
    /// `directory` is that of the sockets.
    explicit StandIns(const std::string& directory);
    ~StandIns();
    /// False when they cannot listen.
    [[nodiscard]] bool start();

    std::vector<std::shared_ptr<RawMessage>> messages() { return m_mailbox.takeAll(); }
    int bell() const { return m_mailbox.bell(); }
    void askWhetherReady();
    /// Returns when everything that the service sent before it ended has arrived, within a second.
    void awaitTheLastWord() const;

private:
    Mailbox m_mailbox; // first, so that it outlives the nodes' threads
    TAMO::Framework::MessageNode m_faultManagement;
    TAMO::Framework::MessageNode m_reset;
};
