#pragma once

#include "requests/Clients.h"
#include "requests/DatabaseWrapper_StateMachine.h"
#include "requests/ObjectTemplate.h"

#include "platform/messages/RawMessage.h"
#include "values/Attribute.h"

#include <cstdint>
#include <string>

/// The request service: every message for the node reaches it as an event and is handled on its
/// thread, one at a time. DatabaseWrapper_Dispatch.cpp holds the table of messages.
class DatabaseWrapper : public DatabaseWrapper_StateMachine {
public:
    explicit DatabaseWrapper(const std::string& threadName);

    static std::string getClientName(std::int32_t node);
    /// The key of a client's transaction: node and id in decimal, joined by a comma. SecMain speaks
    /// for VEX with negative ids.
    static std::string generateTransId(std::int32_t node, std::int32_t transId);
    /// True when the class of the DN's last pair is `referenceClassName`.
    static bool compareClassName(const std::string& dn, const std::string& referenceClassName);

    /// A new attribute from a template entry; one whose text does not read as its type, or whose
    /// type is not known, becomes text.
    static Attribute makeAttribute(const std::string& name, const std::string& value, const std::string& type);
    static Attribute ConvertToDBString(const std::string& name, const std::string& value, const std::string& type);

    // Write requests (DatabaseWrapper_Write.cpp, DatabaseWrapper_Attributes.cpp,
    // DatabaseWrapper_CreateObject.cpp)
    void handleInsert(const RawMessage* raw);
    void handleInsertToCommonDb(const RawMessage* raw);
    void handleUpdate(const RawMessage* raw);
    void handleDelete(const RawMessage* raw);
    void handleCreateObject(const RawMessage* raw);
    void handleSetAttributeValue(const RawMessage* raw);
    void handleSetAttributeValues(const RawMessage* raw);
    void handleDeleteAttribute(const RawMessage* raw);

    // Read requests (DatabaseWrapper_Read.cpp)
    void handleFetch(const RawMessage* raw);
    void handleFetchAttr(const RawMessage* raw);
    void handleFetchAllChildren(const RawMessage* raw);
    void handleFetchMOClass(const RawMessage* raw);
    void handleFetchMOClassWith0Parent(const RawMessage* raw);
    void handlePresence(const RawMessage* raw);
    void handleGetWholeDn(const RawMessage* raw);

    // Maintenance requests (DatabaseWrapper_Maintenance.cpp)
    void handleOrderReady(const RawMessage* raw);

protected:
    void enterListening() override;
    void exitListening() override;
    void processEvent(TAMO::Framework::MessageEvent& event) override;

private:
    bool createObject(const std::string& file, const std::string& dn, std::int32_t MOInstance,
                      const std::string& client, struct OperationRecord& record);
    bool insertTemplateObject(const std::string& dn, std::int32_t MOInstance, const std::string& client);
    bool insertTemplateStructs(const std::string& dn, const std::string& client);

    ObjectTemplate m_template; // of the create-object request being handled
};
