// Keeping "reservedBy" in step: who is told by its text attribute which objects point to it.

#include "store/SQLite.h"

#include "store/ReservedBy.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "platform/utility/Toolbox.h"
#include "values/ValueType.h"

#include <algorithm>

namespace {

/// The elements of a list of DNs, empty ones kept.
std::vector<std::string> elementsOf(const std::string& list)
{
    std::vector<std::string> elements;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(';', begin), list.size());
        elements.push_back(list.substr(begin, end - begin));
        begin = end + 1;
    }
    return elements;
}

/// Calls `work` with every target DN of a reference value, each once, logging as it goes.
template <class Work>
void eachTarget(const char* operation, const std::string& value, const char* purpose, const std::string& referrer,
                Work work)
{
    std::vector<std::string> done;
    for (std::size_t begin = 0; begin < value.size();) {
        const std::size_t end = std::min(value.find(';', begin), value.size());
        const std::string target = value.substr(begin, end - begin);
        if (!target.empty() && std::find(done.begin(), done.end(), target) == done.end()) {
            LOG_DEBUG("SQLite::%s, dn = '%s'", operation, value.c_str() + begin);
            LOG_DEBUG("SQLite::%s, singleDn = '%s'", operation, target.c_str());
            LOG_DEBUG("SQLite::%s, %s = '%s'", operation, purpose, referrer.c_str());
            done.push_back(target);
            work(target);
        }
        begin = end + 1;
    }
}

bool holdsElement(const std::string& list, const std::string& dn)
{
    std::vector<std::string> elements;
    return Toolbox::readStringToList(list, ';', elements, true) &&
           std::find(elements.begin(), elements.end(), dn) != elements.end();
}

} // namespace

void SQLite::setReference(const std::string& value, const std::string& referrer, bool inTransaction)
{
    const char* const operation = __func__;
    LOG_DEBUG("SQLite::%s set reference(s) %s to the target object(s)", operation, value.c_str());
    if (value.empty() || referrer.empty())
        return;
    eachTarget(operation, value, "dnToAdd", referrer, [&](const std::string& target) {
        const auto object = sql_get_object(target, 1, "Database");
        if (!object) {
            LOG_DEBUG("SQLite::%s: object '%s' not found, no need to add", operation, target.c_str());
            return;
        }
        Attribute* const attribute = object->getAttribute(reservedBy);
        if (!attribute) {
            LOG_DEBUG("SQLite::%s: reservedBy not found, no need to add", operation);
            return;
        }
        std::string list = std::get<std::string>(attribute->value);
        if (holdsElement(list, referrer)) {
            LOG_DEBUG("SQLite::%s: found %s from reservedBy of %s", operation, referrer.c_str(), target.c_str());
            LOG_DEBUG("SQLite::%s: dn found, no need to add", operation);
            return;
        }
        list.append(list.empty() ? "" : ";").append(referrer);
        LOG_DEBUG("SQLite::%s: update reservedBy, value '%s'", operation, list.c_str());
        attribute->SetValue(list, IPCData::SECOND_REFERENCE);
        sql_update(object.get(), inTransaction, "Database");
    });
}

void SQLite::removeSingleReference(const std::string& value, const std::string& referrer, bool inTransaction)
{
    const char* const operation = __func__;
    LOG_DEBUG("SQLite::%s, Remove reference(s) '%s' if exist", operation, value.c_str());
    if (value.empty() || referrer.empty())
        return;
    eachTarget(operation, value, "dnToRemove", referrer, [&](const std::string& target) {
        const auto object = sql_get_object(target, 1, "Database");
        if (!object) {
            LOG_DEBUG("SQLite::%s: object '%s' not found, no need to remove", operation, target.c_str());
            return;
        }
        Attribute* const attribute = object->getAttribute(reservedBy);
        if (!attribute) {
            LOG_DEBUG("SQLite::%s: reservedBy not found, no need to remove", operation);
            return;
        }
        std::string kept;
        bool first = true;
        for (const std::string& element : elementsOf(std::get<std::string>(attribute->value))) {
            if (element == referrer)
                continue;
            kept.append(first ? "" : ";").append(element);
            first = false;
        }
        attribute->SetValue(Value(kept));
        sql_update(object.get(), inTransaction, "SQLite::removeSingleReference");
    });
}

void SQLite::removeReference(std::int32_t objectId, bool inTransaction)
{
    if (!m_runtime)
        return;
    LOG_DEBUG("SQLite::%s, Remove reference from reservedBy if exist", __func__);
    // Read first: withdrawing a reference writes to the very table.
    std::vector<std::string> values;
    Statement rows(m_runtime,
                   "select value from Attribute where belongsTo = %d and (value_type = 11 or value_type = 31)",
                   objectId);
    while (rows.next())
        values.emplace_back(rows.text(0));
    if (!rows.done()) {
        LOG_DEBUG("SQLite::%s Error while checking reference. Sqlite error: %d", __func__, rows.result());
        doIntegrityCheck();
    }
    for (const std::string& value : values) {
        const std::string wholeDn = get_whole_dn(objectId);
        LOG_DEBUG("SQLite::%s, where to remove = '%s' ", __func__, value.c_str());
        LOG_DEBUG("SQLite::%s, what to remove = '%s' ", __func__, wholeDn.c_str());
        try {
            removeSingleReference(value, wholeDn, inTransaction);
        } catch (const std::bad_variant_access&) {
            // A target's list that is no text names nobody, so it must not keep the referrer for ever.
            LOG_ERROR("SQLite::%s: the reservedBy of a target in '%s' is no text", __func__, value.c_str());
        }
    }
    if (values.empty())
        LOG_DEBUG("SQLite::%s No reference found from object %d", __func__, objectId);
    else
        LOG_DEBUG("SQLite::%s %d references deleted for object %d", __func__, static_cast<int>(values.size()),
                  objectId);
}
