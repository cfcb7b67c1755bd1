#pragma once

#include "tests/support/LogLines.h"

#include "platform/host/MessageNode.h"
#include "platform/host/NodeState.h"
#include "platform/middleware/mw_api.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// What the rest of the node sees of the service while a test runs.

/// The node's middleware state in the file that TAMO_NODE_STATE names.
class Middleware {
public:
    explicit Middleware(std::string stateFile) : m_file(std::move(stateFile)) {}
    NodeState state() const;
    void set(const NodeState& state) const;

private:
    std::string m_file;
};

/// Makes this process the node "db" for as long as it lives.
class DatabaseNode {
public:
    explicit DatabaseNode(const std::string& directory);
    ~DatabaseNode();
    DatabaseNode(const DatabaseNode&) = delete;
    DatabaseNode& operator=(const DatabaseNode&) = delete;
};

/// Another service of the node, connected to the DatabaseNode of the same directory. Keeps what it
/// is sent.
class Service {
public:
    Service(const std::string& directory, const std::string& name, std::int32_t id);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// The oldest message not taken yet; waits for it. Null when none comes.
    std::shared_ptr<RawMessage> next();
    /// The next message when it is a `Message`.
    template <class Message>
    std::optional<Message> next()
    {
        const auto raw = next();
        Message message;
        if (!raw || raw->id != Message::id || !message.deserialize(raw.get()))
            return std::nullopt;
        return message;
    }
    /// Everything that was sent so far and is not taken yet.
    std::vector<std::shared_ptr<RawMessage>> arrived();
    /// Sends one more message to itself by way of the database node, and tells whether it is the only
    /// one: what was sent before has arrived by then.
    bool gotNothing();
    std::int32_t id() const { return m_id; }

private:
    const std::int32_t m_id;
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<std::shared_ptr<RawMessage>> m_messages;
    TAMO::Framework::MessageNode m_node; // last: its thread ends first
};
