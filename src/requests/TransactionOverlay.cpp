// How reads see the queued operations of the reader's own transaction. The read handlers ask the
// store first and pass the answer through here; commits have nothing to do with it.

#include "requests/TransactionOverlay.h"

#include "requests/DatabaseWrapper.h"

#include "platform/messages/Requests.h"
#include "platform/middleware/Log.h"

#include <functional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace {

bool isDeletion(const SqlOperation& operation) { return operation.code == TAMO::Messages::operationDelete; }

/// Whether the DN is the object's own pair or its full DN.
bool answersTo(const DBObject& object, std::string_view dn)
{
    const std::string_view parent = object.parentDn;
    const std::string_view own = object.dn;
    return dn == own || (!parent.empty() && dn.size() == parent.size() + 1 + own.size() && dn.ends_with(own) &&
                         dn[parent.size()] == ',' && dn.starts_with(parent));
}

/// An object of the same name and place, without attributes.
std::unique_ptr<DBObject> bareCopy(const DBObject& object)
{
    return std::make_unique<DBObject>(object.dn, object.MOInstance, object.isMOMObject, object.system,
                                      object.operationalState, object.administrativeState, object.parentDn,
                                      object.parentMOInstance);
}

/// Adds a copy of the attribute; one that is there already only gives way to a changed one.
void put(DBObject& object, const Attribute& attribute)
{
    const bool parked = attribute.slot != Attribute::noSlot;
    Attribute* const held = parked ? object.getAlternateAttribute(attribute.name) : object.getAttribute(attribute.name);
    if (held) {
        if (attribute.changed)
            *held = attribute;
    } else if (parked) {
        object.addAlternateAttribute(Attribute(attribute));
    } else {
        object.addAttribute(Attribute(attribute));
    }
}

void putAll(DBObject& object, const DBObject& queued, bool onlyChanged)
{
    for (const auto* attributes : {&queued.attributes, &queued.alternateAttributes})
        for (const auto& [name, attribute] : *attributes)
            if (attribute.changed || !onlyChanged)
                put(object, attribute);
}

/// Whether parent and pair are joined into a DN that reads as another one.
bool isDoubtful(const DBObject& object) { return !object.parentDn.empty() && object.dn.find(',') != std::string::npos; }

std::string classOf(const std::string& dn)
{
    const std::size_t at = dn.find('=');
    constexpr bool wantClass = true;
    return at != 0 && at != std::string::npos ? SQLite::getInstance().get_object_name(dn, wantClass) : std::string();
}

/// A list of objects with an index by full DN: comparing every operation with every object would
/// keep all other clients waiting for seconds when both are many. Made for the first operation that
/// needs it.
class IndexedObjects {
public:
    explicit IndexedObjects(SQLite::Objects& objects) : m_objects(objects) {}

    void apply(const SqlOperation& operation, const std::string& fullDn)
    {
        if (!std::exchange(m_indexed, true))
            indexAll();
        constexpr bool onlyChanged = true;
        const auto [first, last] = m_byDn.equal_range(fullDn);
        if (isDeletion(operation)) {
            for (auto at = first; at != last; ++at)
                m_objects.erase(at->second);
            m_byDn.erase(first, last);
        } else if (first == last) {
            putAll(*m_objects.emplace_back(bareCopy(*operation.object)), *operation.object, onlyChanged);
            m_byDn.emplace(fullDn, std::prev(m_objects.end()));
        } else {
            for (auto at = first; at != last; ++at)
                putAll(**at->second, *operation.object, onlyChanged);
        }
    }

private:
    void indexAll()
    {
        m_byDn.reserve(m_objects.size());
        for (auto at = m_objects.begin(); at != m_objects.end(); ++at) {
            if (isDoubtful(**at))
                LOG_ERROR("DatabaseWrapper::handleFetchMOClass listObjParentDn was not empty and listObjDn contained "
                          "commas -> fdn might be erroneous!");
            m_byDn.emplace((*at)->fullDn(), at);
        }
    }

    SQLite::Objects& m_objects;
    std::unordered_multimap<std::string, SQLite::Objects::iterator> m_byDn; // instances share a DN
    bool m_indexed = false;
};

} // namespace

void TransactionOverlay::overlayObject(const TransactionMngr& transaction, const std::string& dn,
                                       std::int32_t MOInstance, std::unique_ptr<DBObject>& object)
{
    constexpr bool onlyChanged = false;
    for (const SqlOperation& operation : transaction.sqlOperations()) {
        const DBObject& queued = *operation.object;
        if (queued.MOInstance != MOInstance || !answersTo(queued, dn))
            continue;
        if (isDeletion(operation)) {
            object.reset();
            continue;
        }
        if (!object)
            object = bareCopy(queued);
        putAll(*object, queued, onlyChanged);
    }
}

void TransactionOverlay::overlayAttribute(const TransactionMngr& transaction, const std::string& dn,
                                          const std::string& name, std::unique_ptr<Attribute>& attribute)
{
    const Attribute* candidate = nullptr;
    for (const SqlOperation& operation : transaction.sqlOperations())
        if (answersTo(*operation.object, dn))
            candidate = std::as_const(*operation.object).getAttribute(name);
    if (candidate)
        attribute = std::make_unique<Attribute>(*candidate);
}

void TransactionOverlay::overlayClass(const TransactionMngr& transaction, const std::string& moClass,
                                      SQLite::Objects& objects)
{
    IndexedObjects indexed(objects);
    for (const SqlOperation& operation : transaction.sqlOperations()) {
        const DBObject& queued = *operation.object;
        if (isDoubtful(queued))
            LOG_ERROR("DatabaseWrapper::handleFetchMOClass transObjParentDn was not empty and transObjDn contained "
                      "commas -> fdn might be erroneous!");
        if (classOf(queued.dn) == moClass)
            indexed.apply(operation, queued.fullDn());
    }
}

void TransactionOverlay::overlayInstances(const TransactionMngr& transaction, const std::string& parentDn,
                                          const std::string& moClass, std::vector<std::string>& instances)
{
    // The set gives what appending, removing every equal entry, sorting and thinning out would.
    std::set<std::string, std::less<>> seen(std::make_move_iterator(instances.begin()),
                                            std::make_move_iterator(instances.end()));
    for (const SqlOperation& operation : transaction.sqlOperations()) {
        const DBObject& queued = *operation.object;
        const std::size_t comma = queued.dn.rfind(',');
        const auto ownParent = std::string_view(queued.dn).substr(0, comma == std::string::npos ? 0 : comma);
        if ((queued.parentDn != parentDn && ownParent != parentDn) ||
            !DatabaseWrapper::compareClassName(queued.dn, moClass))
            continue;
        const std::size_t equals = queued.dn.rfind('=');
        std::string instance = equals == std::string::npos ? std::string() : queued.dn.substr(equals + 1);
        if (isDeletion(operation)) {
            LOG_DEBUG("DatabaseWrapper::handleFetchMOClassWith0Parent removed: %s", instance.c_str());
            seen.erase(instance);
        } else {
            seen.insert(std::move(instance));
        }
    }
    instances.clear();
    while (!seen.empty())
        instances.push_back(std::move(seen.extract(seen.begin()).value()));
}
