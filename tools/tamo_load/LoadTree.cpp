// The objects that a run inserts, and what it changes in them.

#include "tools/tamo_load/LoadTree.h"

#include "tools/client/Database.h"
#include "tools/client/ServiceClient.h"
#include "values/ValueType.h"

#include <algorithm>
#include <array>
#include <random>

namespace {

DBObject filledObject(const std::string& dn, int number)
{
    static constexpr std::array<const char*, attributesPerObject> names{"AdminState", "Alias",    "Bandwidth", "CellId",
                                                                        "Counter",    "Enable",   "Frequency", "Power",
                                                                        "Priority",   "userLabel"};
    DBObject object = newObject(dn);
    for (int i = 0; i < attributesPerObject; ++i) {
        const auto value = static_cast<std::uint32_t>(number * attributesPerObject + i);
        const std::string name = names.at(static_cast<std::size_t>(i));
        const bool persistent = i % 2 == 0;
        if (i % 5 == 1)
            object.addAttribute(newAttribute(name, "label " + std::to_string(value), IPCData::STRING, persistent));
        else if (i % 5 == 3)
            object.addAttribute(newAttribute(name, value % 2 == 0, IPCData::BOOLEAN, persistent));
        else
            object.addAttribute(newAttribute(name, value, IPCData::UINT32, persistent));
    }
    return object;
}

} // namespace

void require(bool success, const std::string& what)
{
    if (!success)
        throw ClientError(Trouble::refused, "the service refused to " + what);
}

LoadTree::LoadTree(int objects) : m_name(std::to_string(std::random_device{}())), m_objects(objects) {}

void LoadTree::prepare(Database& database) const
{
    if (!database.exists("ManagedElement=1"))
        require(database.insert(newObject("ManagedElement=1")), "insert ManagedElement=1");
    require(database.insert(newObject(root())), "insert " + root());
    for (int number = 0; number * groupSize < m_objects; ++number)
        require(database.insert(newObject(group(number))), "insert a group");
    for (int i = 0; i < groupSize; ++i)
        require(database.insert(filledObject(root() + "," + probeClass() + "=" + std::to_string(i), i)),
                "insert a probe");
}

DBObject LoadTree::object(int number) const { return filledObject(dn(number), number); }

DBObject LoadTree::nextChange()
{
    const int number = ++m_changes;
    DBObject change = newObject(dn(someObject(number)));
    const auto value = static_cast<std::uint32_t>(1'000'000'000 + number);
    change.addAttribute(newAttribute("AdminState", value, IPCData::UINT32, true));
    return change;
}

int LoadTree::someGroup(int number) const { return scattered(number, std::max(m_objects / groupSize, 1)); }

int LoadTree::scattered(int number, int size)
{
    constexpr std::uint64_t oddConstant = 0x9E3779B97F4A7C15;
    return static_cast<int>((static_cast<std::uint64_t>(number) * oddConstant >> 32) %
                            static_cast<std::uint64_t>(size));
}
