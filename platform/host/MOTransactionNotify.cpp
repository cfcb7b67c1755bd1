// The layout of a report: objects, each with its attributes, as one array of fields.

#include "platform/moaccess/MOTransactionNotify.h"

#include <stdexcept>

namespace TAMO::Messages {

void TAMO_MOAccessReport::describe(FieldList& fields)
{
    constexpr std::size_t fieldsOfObject = 3;
    constexpr std::size_t fieldsOfAttribute = 4;
    objects.resize(fields.count(objects.size(), fieldsOfObject));
    for (ReportedObject& object : objects) {
        std::string letter(1, object.operation);
        fields(object.dn, letter);
        if (letter.size() != 1)
            throw std::runtime_error("an operation of " + std::to_string(letter.size()) + " letters");
        object.operation = letter.front();
        object.attributes.resize(fields.count(object.attributes.size(), fieldsOfAttribute));
        for (ReportedObject::ReportedAttribute& attribute : object.attributes)
            fields(attribute.name, attribute.type, attribute.value, attribute.hidden);
    }
}

} // namespace TAMO::Messages

MOTransactionNotify::MOTransactionNotify(const std::uint8_t* bytes, std::size_t length)
{
    TAMO::Messages::TAMO_MOAccessReport report;
    try {
        report.decode(bytes, length);
    } catch (const std::exception& error) {
        throw std::runtime_error("a report of " + std::to_string(length) + " bytes cannot be read: " + error.what());
    }
    m_objects = std::move(report.objects);
}
