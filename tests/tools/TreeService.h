#pragma once

#include "platform/host/MessageNode.h"
#include "platform/utility/DBObject.h"

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

/// A service that keeps objects by their whole DN, as little of the real one as a client needs to be
/// tried against: insert (an existing object takes the new attributes), update, delete, fetch,
/// presence and children.
class TreeService {
public:
    explicit TreeService(const std::string& directory);
    ~TreeService();

    /// Writes on objects of this DN are answered false.
    void refuse(const std::string& dn);
    /// A copy, or null.
    std::unique_ptr<DBObject> object(const std::string& dn) const;
    /// Update requests seen, accepted or not.
    int updates() const;

private:
    void handle(const RawMessage& raw);
    template <class Request, class Serve>
    bool serve(const RawMessage& raw, Serve serve);
    bool write(const TAMO::Messages::Message& request, const Bytes& bytes, std::int32_t uncompressedSize, bool insert);

    mutable std::mutex m_mutex;
    std::map<std::string, DBObject> m_objects;
    std::set<std::string> m_refused;
    int m_updates = 0;
    TAMO::Framework::MessageNode m_node;
};
