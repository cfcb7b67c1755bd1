#pragma once

#include "platform/messages/Message.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// One object that a report of the management agent tells of.
struct ReportedObject {
    struct ReportedAttribute {
        std::string name;
        std::int32_t type = 0; ///< value-type code (values/ValueType.h)
        std::string value;     ///< as text
        bool hidden = false;
    };
    std::string dn;       ///< whole DN
    char operation = 'U'; ///< I, U, D for an object of the model, i, u, d for any other
    std::vector<ReportedAttribute> attributes;
};

namespace TAMO::Messages {

/// A report as it travels.
class TAMO_MOAccessReport : public Numbered<0x2000, Message> {
public:
    std::vector<ReportedObject> objects;

protected:
    void describe(FieldList& fields) override;
};

} // namespace TAMO::Messages

/// A report of the management agent, decoded as a whole.
class MOTransactionNotify {
public:
    /// From the raw bytes of a report. Throws a std::exception that says so when they are none.
    MOTransactionNotify(const std::uint8_t* bytes, std::size_t length);

    const std::vector<ReportedObject>& objects() const { return m_objects; }

private:
    std::vector<ReportedObject> m_objects;
};
