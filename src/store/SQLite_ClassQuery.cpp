// Lists of objects: those of a class, those below a parent, and the stored instance of a class that
// may have only one.

#include "store/SQLite.h"

#include "store/Statement.h"

#include "platform/middleware/Log.h"

#include <sqlite3.h>

namespace {

/// A class name as the beginning of a LIKE pattern: its own % and _ are plain characters.
std::string beginsWith(const std::string& moClass)
{
    std::string pattern;
    for (const char c : moClass) {
        if (c == '%' || c == '_' || c == '\\')
            pattern += '\\';
        pattern += c;
    }
    return pattern += '%';
}

bool isStruct(std::string_view dn, bool isMOMObject) { return !isMOMObject && dn.find(':') != std::string_view::npos; }

bool holdsPair(const std::string& dn)
{
    const std::size_t at = dn.find('=');
    return at != std::string::npos && at != 0;
}

} // namespace

/// The class part of a stored pair, for exact comparison.
std::string SQLite::classOf(const std::string& pair) const
{
    return holdsPair(pair) ? get_object_name(pair, true) : pair;
}

SQLite::Objects SQLite::get_MO_class(const std::string& moClass)
{
    Objects objects;
    if (unavailable(__func__))
        return objects;
    Statement rows(m_runtime, "select dn,id,isMOMObject from DBObject where dn like %Q escape '\\'",
                   beginsWith(moClass).c_str());
    while (rows.next()) {
        const std::string dn(rows.text(0));
        if (isStruct(dn, rows.integer(2) != 0) || classOf(dn) != moClass)
            continue;
        auto object = sql_get_object(rows.integer(1), "getMOClass");
        if (!object) {
            LOG_ERROR("SQLite::%s, Object '%s' was NULL, not stored into object list", __func__, dn.c_str());
            continue;
        }
        LOG_DEBUG("SQLite::%s, Object '%s' stored into object list", __func__, dn.c_str());
        objects.push_back(std::move(object));
    }
    if (!rows.done()) {
        LOG_ERROR("SQLite::%s, Error while fetching MOClass objects! SQLite error: %d", __func__, rows.result());
        objects.clear();
        doIntegrityCheck();
    } else if (objects.empty()) {
        LOG_DEBUG("SQLite::%s, No objects found for MOClass '%s' ", __func__, moClass.c_str());
    } else {
        LOG_DEBUG("SQLite::%s, Total of %d objects stored into list", __func__, static_cast<int>(objects.size()));
    }
    return objects;
}

std::vector<std::string> SQLite::get_MO_class_with_parent(const std::string& parentDn, const std::string& moClass)
{
    std::vector<std::string> instances;
    if (unavailable(__func__))
        return instances;
    const std::int32_t parentId = parentDn.empty() ? 0 : get_object_id(parentDn, 1);
    Statement rows(m_runtime, "select dn,isMOMObject from DBObject where parent = %d and dn like %Q escape '\\'",
                   parentId, beginsWith(moClass).c_str());
    while (rows.next()) {
        const std::string dn(rows.text(0));
        if (!isStruct(dn, rows.integer(1) != 0) && classOf(dn) == moClass)
            instances.push_back(get_object_name(dn, false));
    }
    if (!rows.done()) {
        LOG_ERROR("SQLite::%s, Error while fetching MOClass objects! SQLite error: %d", __func__, rows.result());
        instances.clear();
        doIntegrityCheck();
    } else if (instances.empty()) {
        LOG_DEBUG("SQLite::%s, No objects found for MOClass '%s' ", __func__, moClass.c_str());
    } else {
        LOG_DEBUG("SQLite::%s, Total of %d dn:s stored into list", __func__, static_cast<int>(instances.size()));
    }
    return instances;
}

SQLite::Objects SQLite::get_all_children(const std::string& parentDn, std::int32_t parentMOInstance,
                                         std::int32_t parentId)
{
    Objects children;
    if (unavailable(__func__))
        return children;
    const std::int32_t id = parentId != 0 ? parentId : get_object_id(parentDn, parentMOInstance);
    if (id == 0) {
        LOG_ERROR("SQLite::%s, Error while fetching child objects: No such parent dn: %s instance: %d ", __func__,
                  parentDn.c_str(), parentMOInstance);
        return children;
    }
    Statement rows(m_runtime, "select id,dn from DBObject where parent = %d ", id);
    while (rows.next()) {
        const std::string dn(rows.text(1));
        auto child = sql_get_object(rows.integer(0), "getAllChildren");
        if (!child) {
            LOG_ERROR("SQLite::%s, Object '%s' was NULL, not stored into child list", __func__, dn.c_str());
            continue;
        }
        LOG_DEBUG("SQLite::%s, Object '%s' stored into child list", __func__, dn.c_str());
        children.push_back(std::move(child));
    }
    if (!rows.done()) {
        LOG_ERROR("SQLite::%s, Error while fetching child objects! SQLite error: %d", __func__, rows.result());
        children.clear();
        doIntegrityCheck();
    } else if (children.empty()) {
        LOG_DEBUG("SQLite::%s, No child objects found for '%s' instance: %d ", __func__, parentDn.c_str(),
                  parentMOInstance);
    } else {
        LOG_DEBUG("SQLite::%s, Total of %d child objects stored into list", __func__,
                  static_cast<int>(children.size()));
    }
    return children;
}

void SQLite::getAllChildIds(const std::string& dn, std::int32_t MOInstance, std::vector<std::int32_t>& ids,
                            bool skipStructs, std::int32_t objectId)
{
    const char* const childQuery = "get_all_children"; // whose lines tell of guard and errors
    if (unavailable(childQuery))
        return;
    const std::int32_t top = objectId != 0 ? objectId : get_object_id(dn, MOInstance);
    if (top == 0) {
        LOG_ERROR("SQLite::%s, Error while fetching child objects: No such parent dn: %s instance: %d ", childQuery,
                  dn.c_str(), MOInstance);
        return;
    }
    // Depth first with a stack of our own: a tree may be deeper than the thread's stack. An object
    // met twice is a ring in a damaged file.
    std::unordered_set<std::int32_t> seen{top};
    std::vector<std::int32_t> open{top};
    while (!open.empty()) {
        const std::int32_t parent = open.back();
        open.pop_back();
        if (parent != top)
            ids.push_back(parent);
        std::vector<std::int32_t> children;
        Statement rows(m_runtime, "select id,dn,isMOMObject from DBObject where parent = %d", parent);
        while (rows.next()) {
            if (skipStructs && isStruct(rows.text(1), rows.integer(2) != 0))
                continue;
            LOG_DEBUG("SQLite::%s, found child dn: %s id: %d ", __func__, std::string(rows.text(1)).c_str(),
                      rows.integer(0));
            if (seen.insert(rows.integer(0)).second)
                children.push_back(rows.integer(0));
            else
                LOG_ERROR("SQLite::%s, object %d is below itself", __func__, rows.integer(0));
        }
        if (!rows.done()) {
            LOG_ERROR("SQLite::%s, Error while fetching child objects! SQLite error: %d", childQuery, rows.result());
            doIntegrityCheck();
            return;
        }
        if (children.empty())
            LOG_DEBUG("SQLite::%s, Couldn't find any child objects, this must be a leaf object.", __func__);
        open.insert(open.end(), children.rbegin(), children.rend());
    }
}

std::vector<std::string> SQLite::getMoClassDnList(const std::string& moClass)
{
    LOG_DEBUG("SQLite::%s Fetching dn list for MO class '%s'", __func__, moClass.c_str());
    std::vector<std::string> dns;
    if (!m_runtime)
        return dns;
    Statement rows(m_runtime, "select dn,isMOMObject from DBObject");
    while (rows.next()) {
        std::string dn(rows.text(0));
        if (isStruct(dn, rows.integer(1) != 0)) {
            LOG_DEBUG("SQLite::%s Skipping struct object %s", __func__, dn.c_str());
            continue;
        }
        if (classOf(dn) == moClass)
            dns.push_back(std::move(dn));
    }
    if (!rows.done()) {
        LOG_ERROR("SQLite::%s Error while fetching MOClass objects! SQLite error: %d", __func__, rows.result());
        dns.clear();
        doIntegrityCheck();
    } else if (dns.empty()) {
        LOG_DEBUG("SQLite::%s No objects found for MOClass '%s' ", __func__, moClass.c_str());
    } else {
        LOG_DEBUG("SQLite::%s Total of %d dn:s stored into list", __func__, static_cast<int>(dns.size()));
    }
    return dns;
}

/// The first object along pairs of which some are patterns; as createSelectIdSql() would find it,
/// but pair by pair from the top, because a long nested select overflows SQLite's parser stack.
std::int32_t SQLite::firstMatch(const std::vector<std::string>& pairs, int& result)
{
    std::int32_t id = 0;
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const bool top = i == 0;
        const std::string sql = createSelectIdSql({pairs[i]}) +
                                (top ? " and id != 0 order by parent != 0" : " and parent = " + std::to_string(id));
        sqlite3_stmt* raw = nullptr;
        result = sqlite3_prepare_v2(m_runtime->handle(), sql.c_str(), -1, &raw, nullptr);
        if (result != SQLITE_OK)
            return 0;
        result = sqlite3_step(raw);
        id = result == SQLITE_ROW ? sqlite3_column_int(raw, 0) : 0;
        sqlite3_finalize(raw);
        if (id == 0)
            return 0;
    }
    return id;
}

std::string SQLite::getMoClassInstance(const std::string& pattern)
{
    LOG_DEBUG("SQLite::%s() Fetching instance for MO class %s", __func__, pattern.c_str());
    if (!m_runtime)
        return pattern;
    std::vector<std::string> pairs;
    splitDnPath(pattern, pairs);
    int result = SQLITE_DONE;
    if (const std::int32_t id = firstMatch(pairs, result)) {
        std::string found = get_whole_dn(id);
        LOG_DEBUG("SQLite::%s Found instance %s for MO class", __func__, found.c_str());
        return found;
    }
    if (result == SQLITE_ROW || result == SQLITE_DONE) {
        LOG_DEBUG("SQLite::%s No instances found for MO class: %s", __func__, pattern.c_str());
    } else {
        LOG_ERROR("SQLite::%s Sqlite error: %d", __func__, result);
        doIntegrityCheck();
    }
    return pattern;
}

std::string SQLite::alignSingletonDn(const std::string& pair)
{
    if (pair.find(':') != std::string::npos || !holdsPair(pair) ||
        (pair.find("NodeBLocalCell") == std::string::npos && pair.find("Iub") == std::string::npos))
        return pair;
    const std::vector<std::string> tokens = tokenize_dn(pair);
    if (tokens.size() < 2)
        return pair;
    const std::string& instance = tokens.back();
    const std::string& moClass = tokens[tokens.size() - 2];
    if (moClass != "NodeBLocalCell" && moClass != "Iub")
        return pair;
    const std::string first = moClass + "=1";
    const bool firstStored = get_object_id(first, 1) != 0;
    if (instance == "1") {
        if (firstStored)
            return pair;
        const std::vector<std::string> stored = getMoClassDnList(moClass);
        return stored.size() == 1 ? stored.front() : pair;
    }
    if (firstStored)
        updateDn(first, pair);
    return pair;
}
