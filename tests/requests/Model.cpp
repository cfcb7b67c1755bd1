// The model that random requests are compared with. Nothing here is fast or clever: objects are found
// by text, and a transaction is tried on a copy of the tree. Model_Subscriptions.cpp says what is told.

#include "tests/requests/Model.h"

#include "values/DistinguishedName.h"
#include "values/ValueType.h"

#include <algorithm>
#include <optional>
#include <set>

using namespace TAMO::Messages;

bool holds(const std::vector<std::string>& list, const std::string& element)
{
    return std::ranges::find(list, element) != list.end();
}

std::vector<std::string> once(const std::vector<std::string>& list)
{
    std::vector<std::string> found;
    for (const std::string& each : list)
        if (!holds(found, each))
            found.push_back(each);
    return found;
}

std::string classOf(const std::string& dn)
{
    const std::string pair = dn.substr(dn.rfind(',') + 1);
    return pair.substr(0, pair.rfind('='));
}

namespace {

constexpr const char* reservedBy = "reservedBy";

bool isReference(const Attribute& attribute)
{
    return isReferenceType(storedType(attribute.type, attribute.value)) && attribute.name != reservedBy;
}

bool isBelow(const std::string& dn, const std::string& ancestor) { return dn.starts_with(ancestor + ","); }

std::string textOf(const Attribute& attribute) { return std::get<std::string>(attribute.value); }

std::vector<std::string> elements(const std::string& list)
{
    std::vector<std::string> found;
    for (std::size_t at = 0; !list.empty() && at <= list.size();) {
        const std::size_t end = std::min(list.find(';', at), list.size());
        found.push_back(list.substr(at, end - at));
        at = end + 1;
    }
    return found;
}

void overwrite(DBObject& object, const Attribute& attribute)
{
    object.attributes.insert_or_assign(attribute.name, attribute);
}

DBObject bareCopy(const DBObject& of)
{
    return {of.dn, of.MOInstance, of.isMOMObject, of.system, 0, 1, of.parentDn, of.parentMOInstance};
}

} // namespace

std::string describe(const Attribute& attribute)
{
    return attribute.name + "=" + valueText(attribute.value) + ":" + std::to_string(attribute.type) +
           (attribute.hidden ? "h" : "") + (attribute.persistent ? "p" : "") + (attribute.changed ? "c" : "") +
           (attribute.deleted ? "d" : "");
}

std::string describe(const DBObject& object)
{
    std::string text = object.fullDn() + "|" + object.dn + "|" + std::to_string(object.MOInstance) + "|" +
                       std::to_string(object.parentMOInstance) + (object.isMOMObject ? "m" : "") +
                       (object.system ? "s" : "") + "{";
    for (const auto& [name, attribute] : object.attributes)
        text += describe(attribute) + " ";
    return text + "}";
}

std::string ModelTree::locate(const std::string& dn, std::int32_t instance) const
{
    const auto found = objects.find(dn);
    if (found != objects.end() && (dn.find(',') != std::string::npos || found->second.MOInstance == instance))
        return dn;
    if (dn.find(',') == std::string::npos)
        for (const auto& [key, object] : objects)
            if (object.dn == dn && object.MOInstance == instance)
                return key;
    return "";
}

/// Where the object stands or would stand: at the top when its parent is not there. Nothing stands
/// where a whole DN is given for an own pair.
std::string ModelTree::place(const DBObject& object) const
{
    if (object.dn.find(',') != std::string::npos)
        return "";
    const std::int32_t instance = object.parentMOInstance == 0 ? 1 : object.parentMOInstance;
    return joinDn(object.parentDn.empty() ? "" : locate(object.parentDn, instance), object.dn);
}

bool ModelTree::insert(const DBObject& object)
{
    if (object.MOInstance == 0)
        return false;
    const std::string key = place(object);
    if (objects.contains(key))
        return update(object);
    DBObject made = bareCopy(object);
    made.parentDn = splitOwnPair(key).parent;
    made.parentMOInstance = made.parentDn.empty() ? 0 : objects.at(made.parentDn).MOInstance;
    objects.emplace(key, made);
    noteObject(key, inserted);
    for (const auto& [name, attribute] : object.attributes)
        write(key, attribute, inserted);
    for (const auto& [name, attribute] : object.attributes)
        if (isReference(attribute))
            refer(textOf(attribute), key);
    return true;
}

bool ModelTree::update(const DBObject& object)
{
    const std::string key = place(object);
    const auto found = objects.find(key);
    if (found == objects.end())
        return false;
    DBObject& stored = found->second;
    stored.isMOMObject = object.isMOMObject;
    stored.system = object.system;
    noteObject(key, updated);
    std::vector<std::string> oldTargets;
    bool refers = false;
    for (const auto& [name, attribute] : object.attributes) {
        const auto held = stored.attributes.find(name);
        const bool isHeld = held != stored.attributes.end();
        if (!attribute.changed)
            continue;
        if (attribute.deleted) {
            if (isHeld) {
                note(key, deleted, &held->second);
                stored.attributes.erase(held);
            }
            continue;
        }
        if (isHeld && isReference(held->second))
            oldTargets.push_back(textOf(held->second));
        // A value counts as unchanged only under its own kind's code: the other codes are always written.
        if (isHeld && held->second.type == typeOfAlternative(attribute.value.index()) &&
            held->second.value == attribute.value && held->second.hidden == attribute.hidden &&
            held->second.persistent == attribute.persistent)
            continue;
        write(key, attribute, isHeld ? updated : inserted);
        refers = refers || isReference(attribute);
    }
    if (!refers)
        return true;
    for (const std::string& targets : oldTargets)
        withdraw(targets, key, [] {});
    for (const auto& [name, attribute] : object.attributes)
        if (isReference(attribute))
            refer(textOf(attribute), key);
    return true;
}

bool ModelTree::remove(const std::string& dn, std::int32_t instance)
{
    const std::string top = locate(dn, instance);
    if (top.empty())
        return false;
    std::vector<std::string> family;
    for (const auto& [key, object] : objects)
        if (isBelow(key, top))
            family.push_back(key);
    const std::vector<std::string> descendants = family;
    family.push_back(top);
    for (const std::string& key : family)
        if (referredTo(key, descendants))
            return false;
    for (const std::string& key : family)
        for (const auto& [name, attribute] : DBObject::Attributes(objects.at(key).attributes))
            if (isReferenceType(attribute.type))
                withdraw(textOf(attribute), key, afterWithdrawal);
    for (const std::string& key : family) {
        note(key, deleted);
        for (const auto& [name, attribute] : objects.at(key).attributes)
            note(key, deleted, &attribute);
    }
    std::erase_if(objects, [&](const auto& entry) { return entry.first == top || isBelow(entry.first, top); });
    return true;
}

bool ModelTree::referredTo(const std::string& target, const std::vector<std::string>& descendants) const
{
    for (const auto& [key, object] : objects)
        for (const auto& [name, attribute] : object.attributes)
            if (isReference(attribute) && !holds(descendants, key) && holds(elements(textOf(attribute)), target))
                return true;
    return false;
}

void ModelTree::write(const std::string& key, const Attribute& attribute, std::int32_t operation)
{
    const Attribute stored(attribute.hidden, attribute.name, attribute.value, 0, attribute.persistent,
                           storedType(attribute.type, attribute.value), false, false);
    overwrite(objects.at(key), stored);
    note(key, operation, &stored);
}

void ModelTree::note(const std::string& key, std::int32_t operation, const Attribute* attribute)
{
    const DBObject& object = objects.at(key);
    static const Attribute none(false, "", Value(), 0, false, 0, false, false);
    changes.push_back(
        {key, object.dn, object.MOInstance, object.isMOMObject, operation, attribute ? *attribute : none});
}

/// An object whose row changes twice is told of at the place of the second time.
void ModelTree::noteObject(const std::string& key, std::int32_t operation)
{
    const auto earlier = std::ranges::find_if(changes, [&](const ModelChange& change) {
        return change.ofObject() && change.wholeDn == key && change.operation == operation;
    });
    if (earlier != changes.end())
        changes.erase(earlier);
    note(key, operation);
}

void ModelTree::refer(const std::string& targets, const std::string& referrer)
{
    for (const std::string& target : once(elements(targets))) {
        const std::string key = locate(target, 1);
        if (key.empty() || !objects.at(key).getAttribute(reservedBy))
            continue;
        DBObject changed = objects.at(key);
        Attribute& list = *changed.getAttribute(reservedBy);
        const std::string old = textOf(list);
        if (holds(elements(old), referrer))
            continue;
        list.SetValue(old.empty() ? referrer : old + ";" + referrer, IPCData::SECOND_REFERENCE);
        update(changed);
    }
}

void ModelTree::withdraw(const std::string& targets, const std::string& referrer, const std::function<void()>& done)
{
    for (const std::string& target : once(elements(targets))) {
        const std::string key = locate(target, 1);
        if (key.empty() || !objects.at(key).getAttribute(reservedBy))
            continue;
        DBObject changed = objects.at(key);
        Attribute& list = *changed.getAttribute(reservedBy);
        std::string rest;
        for (const std::string& element : elements(textOf(list)))
            if (element != referrer)
                rest += (rest.empty() ? "" : ";") + element;
        list.SetValue(Value(rest));
        update(changed);
        done();
    }
}

void Model::answer(Asker by, const std::string& text)
{
    expected[by.node].push_back("#" + std::to_string(by.transId) + " " + text);
}

const Model::Operations& Model::waiting(Asker by) const
{
    static const Operations none;
    const auto found = m_open.find({by.node, by.transId});
    return found == m_open.end() ? none : found->second;
}

bool Model::run(ModelTree& on, const Operation& operation)
{
    if (operation.code == operationInsert)
        return on.insert(operation.object);
    if (operation.code == operationUpdate)
        return on.update(operation.object);
    return on.remove(operation.object.dn, operation.object.MOInstance);
}

void Model::queueOrRun(Asker by, Operation operation)
{
    if (const auto open = m_open.find({by.node, by.transId}); open != m_open.end()) {
        open->second.push_back(std::move(operation));
        return answer(by, "yes");
    }
    const auto tellChanges = [this] { tellOf(std::exchange(tree.changes, {})); };
    tree.afterWithdrawal = tellChanges;
    const bool done = run(tree, operation);
    tree.afterWithdrawal = [] {};
    tellChanges();
    answer(by, done ? "yes" : "no");
}

void Model::write(Asker by, std::int32_t operation, const DBObject& object) { queueOrRun(by, {operation, object}); }

void Model::remove(Asker by, const std::string& dn, std::int32_t instance)
{
    queueOrRun(by, {operationDelete, DBObject(dn, instance, false, false, 0, 1)});
}

void Model::setAttribute(Asker by, const std::string& dn, std::int32_t instance, const std::string& name, Value value)
{
    const std::string key = tree.locate(dn, instance);
    if (key.empty())
        return answer(by, "no");
    DBObject object = tree.objects.at(key);
    if (Attribute* const held = object.getAttribute(name))
        held->SetValue(std::move(value));
    else
        object.addAttribute({false, name, std::move(value), 0, false, 0, true, false});
    queueOrRun(by, {operationUpdate, object});
}

void Model::removeAttribute(Asker by, const std::string& dn, const std::string& name)
{
    const std::string key = tree.locate(dn, 1);
    DBObject object = key.empty() ? DBObject(dn, 1, true, false, 0, 1) : tree.objects.at(key);
    object.addAttribute({false, name, std::int32_t{0}, 0, false, IPCData::INT32, false, false});
    object.getAttribute(name)->changed = true;
    object.getAttribute(name)->deleted = true;
    queueOrRun(by, {operationUpdate, object});
}

void Model::fetch(Asker by, const std::string& dn, std::int32_t instance)
{
    std::optional<DBObject> found;
    if (const std::string key = tree.locate(dn, instance); !key.empty())
        found = tree.objects.at(key);
    for (const auto& [code, object] : waiting(by)) {
        if (object.MOInstance != instance || (dn != object.dn && dn != object.fullDn()))
            continue;
        if (code == operationDelete) {
            found.reset();
            continue;
        }
        if (!found)
            found = bareCopy(object);
        for (const auto& [name, attribute] : object.attributes)
            if (attribute.changed || !found->getAttribute(name))
                overwrite(*found, attribute);
    }
    answer(by, found ? describe(*found) : "none");
}

void Model::fetchAttribute(Asker by, const std::string& dn, const std::string& name)
{
    const Attribute* found = nullptr;
    if (const std::string key = tree.locate(dn, 1); !key.empty())
        found = tree.objects.at(key).getAttribute(name);
    const Attribute* queued = nullptr;
    for (const auto& [code, object] : waiting(by))
        if (dn == object.dn || dn == object.fullDn())
            queued = object.getAttribute(name);
    found = queued ? queued : found;
    answer(by, found ? describe(*found) : "none");
}

void Model::fetchChildren(Asker by, const std::string& dn, std::int32_t instance)
{
    const std::string parent = tree.locate(dn, instance);
    std::string text;
    for (const auto& [key, object] : tree.objects)
        if (!parent.empty() && object.parentDn == parent)
            text += describe(object);
    answer(by, text);
}

void Model::fetchClass(Asker by, const std::string& moClass)
{
    std::vector<DBObject> found;
    for (const auto& [key, object] : tree.objects)
        if (classOf(object.dn) == moClass)
            found.push_back(object);
    for (const auto& [code, object] : waiting(by)) {
        if (classOf(object.dn) != moClass)
            continue;
        auto listed = std::ranges::find(found, object.fullDn(), &DBObject::fullDn);
        if (code == operationDelete) {
            if (listed != found.end())
                found.erase(listed);
            continue;
        }
        if (listed == found.end())
            listed = found.insert(listed, bareCopy(object));
        for (const auto& [name, attribute] : object.attributes)
            if (attribute.changed)
                overwrite(*listed, attribute);
    }
    std::set<std::string> sorted; // the order of rows is nobody's promise
    for (const DBObject& object : found)
        sorted.insert(describe(object));
    std::string text;
    for (const std::string& each : sorted)
        text += each;
    answer(by, text);
}

void Model::instances(Asker by, const std::string& parentDn, const std::string& moClass)
{
    const std::string parent = parentDn.empty() ? "" : tree.locate(parentDn, 1);
    std::set<std::string> found;
    for (const auto& [key, object] : tree.objects)
        if (object.parentDn == parent && classOf(object.dn) == moClass)
            found.insert(object.dn.substr(object.dn.rfind('=') + 1));
    for (const auto& [code, object] : waiting(by)) {
        const std::string above =
            object.dn.substr(0, object.dn.rfind(',') == std::string::npos ? 0 : object.dn.rfind(','));
        if ((object.parentDn != parentDn && above != parentDn) || classOf(object.dn) != moClass)
            continue;
        const std::string instance = object.dn.substr(object.dn.rfind('=') + 1);
        if (code == operationDelete)
            found.erase(instance);
        else
            found.insert(instance);
    }
    std::string text;
    for (const std::string& each : found)
        text += each + ";";
    answer(by, text);
}

void Model::presence(Asker by, const std::string& dn, std::int32_t instance)
{
    answer(by, tree.locate(dn, instance).empty() ? "no" : "yes");
}

void Model::wholeDn(Asker by, const std::string& dn, const std::string& parentDn)
{
    answer(by, tree.locate(joinDn(parentDn, dn), 1));
}

void Model::transaction(Asker by, std::int32_t action, bool quiet)
{
    const std::pair key(by.node, by.transId);
    bool done = false;
    if (action == transactionStart)
        done = m_open.try_emplace(key).second;
    else if (action == transactionCommit && m_open.contains(key))
        done = commit(by, quiet);
    else if (action == transactionAbort)
        done = m_open.erase(key) > 0;
    answer(by, done ? "yes" : "no");
}

bool Model::commit(Asker by, bool quiet)
{
    const Operations operations = m_open.extract({by.node, by.transId}).mapped();
    ModelTree result = tree;
    for (const Operation& operation : operations)
        if (!run(result, operation))
            return false;
    tree.objects = result.objects;
    if (!quiet)
        tellOf(result.changes);
    return true;
}

ModelTree Model::outlook(Asker by) const
{
    ModelTree result = tree;
    for (const Operation& operation : waiting(by))
        run(result, operation);
    return result;
}

std::string Model::everything() const
{
    std::string text;
    for (const auto& [key, object] : tree.objects) {
        text += (text.empty() ? "" : ",") + key + "|" + std::to_string(object.MOInstance) +
                (object.isMOMObject ? "1" : "0") + (object.system ? "1" : "0");
        for (const auto& [name, attribute] : object.attributes)
            text += " " + name + "=" + valueText(attribute.value) + ":" + std::to_string(attribute.type) +
                    (attribute.hidden ? "1" : "0") + (attribute.persistent ? "1" : "0");
    }
    return text;
}
