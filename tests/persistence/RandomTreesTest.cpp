// Trees of any shape through a store and a restart: what comes back is compared with what the test itself
// knows to be persistent, object by object, as a client reads it.

#include "store/FileLocations.h"
#include "store/Statement.h"
#include "tests/support/StoringStore.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <random>
#include <sstream>

namespace fs = std::filesystem;

namespace {

[[maybe_unused]] const bool privateTmp = givePrivateTmp();

/// Seeded by TAMO_TREE_SEED, or anew in each run.
std::uint32_t seed()
{
    const char* given = std::getenv("TAMO_TREE_SEED");
    return given ? static_cast<std::uint32_t>(std::atoll(given)) : std::random_device()();
}

SQLite& store() { return SQLite::getInstance(); } // another one after each restart

/// An object as a test remembers it.
struct Known {
    std::string dn; ///< whole
    std::int32_t instance = 1;
    bool isMOMObject = true;
    bool system = false;
    std::vector<Attribute> attributes;
};

/// A tree, made and changed at random, and the store that is told the same.
class RandomTree {
public:
    explicit RandomTree(std::mt19937& random) : m_random(random) {}
    void grow(int objects);
    void change(int steps);
    /// What of it outlives a restart: objects with a persistent attribute and those above them, with
    /// their persistent attributes; a line for each object.
    std::string persistentPart() const;
    /// The same from the store: its number of objects, and each object of this tree that it has.
    std::string asRead() const;

private:
    bool oneIn(unsigned number) { return m_random() % number == 0; }
    std::size_t below(std::size_t limit) { return m_random() % limit; }
    std::string randomText();
    Value randomValue();
    Attribute randomAttribute();
    Known randomChild();
    void add(Known object);
    void update(Known& object);
    void remove(std::size_t index);
    bool lasts(const Known& object) const;

    std::mt19937& m_random;
    std::vector<Known> m_objects;
    int m_names = 0;
};

std::string RandomTree::randomText()
{
    static const std::vector<std::string> pieces{"a",  "B",  "0",  "-",  "--", "'",        "\"",     ";",
                                                 "\n", "\t", "\\", "%s", " ",  "\xc3\xa9", "INSERT", "---"};
    std::string text;
    for (std::size_t count = below(6); count > 0; --count)
        text += pieces[below(pieces.size())];
    return oneIn(40) ? std::string(5000, 'x') + text : text; // beyond one page
}

template <class Number>
Value extreme(std::uint32_t which)
{
    using Limits = std::numeric_limits<Number>;
    const Number numbers[] = {Limits::lowest(), Limits::max(), Limits::min(), Number(0), Number(42)};
    return numbers[which % std::size(numbers)];
}

Value RandomTree::randomValue()
{
    const auto which = static_cast<std::uint32_t>(m_random());
    switch (below(12)) {
    case 0:
        return extreme<std::int8_t>(which);
    case 1:
        return extreme<std::int16_t>(which);
    case 2:
        return extreme<std::int32_t>(which);
    case 3:
        return extreme<std::int64_t>(which);
    case 4:
        return extreme<float>(which);
    case 5:
        return extreme<double>(which);
    case 6:
        return extreme<std::uint8_t>(which);
    case 7:
        return extreme<std::uint16_t>(which);
    case 8:
        return extreme<std::uint32_t>(which);
    case 9:
        return extreme<std::uint64_t>(which);
    case 10:
        return which % 2 == 0;
    default:
        return randomText();
    }
}

Attribute RandomTree::randomAttribute()
{
    Attribute made = attribute("attribute" + std::to_string(below(8)), randomValue());
    made.type = typeOfAlternative(made.value.index());
    made.persistent = oneIn(3);
    made.hidden = oneIn(5);
    return made;
}

Known RandomTree::randomChild()
{
    static const std::vector<std::string> classes{"Cell", "Rack-1", "Unit_x", "O'Neil", "Sector"};
    const Known* parent = m_objects.empty() || oneIn(10) ? nullptr : &m_objects[below(m_objects.size())];
    Known made;
    made.dn = (parent ? parent->dn + ',' : "") + classes[below(classes.size())] + '=' + std::to_string(++m_names);
    made.isMOMObject = !oneIn(4);
    made.system = oneIn(4);
    return made;
}

DBObject asContainer(const Known& object)
{
    DBObject made = container(object.dn, object.attributes, object.isMOMObject, object.instance);
    made.system = object.system;
    return made;
}

void RandomTree::add(Known object)
{
    for (std::size_t count = below(4); count > 0; --count) {
        const Attribute made = randomAttribute();
        const bool taken =
            std::ranges::any_of(object.attributes, [&](const Attribute& other) { return other.name == made.name; });
        if (!taken)
            object.attributes.push_back(made);
    }
    DBObject told = asContainer(object);
    ASSERT_TRUE(store().sql_insert(&told, false, "test")) << object.dn;
    m_objects.push_back(std::move(object));
}

void RandomTree::grow(int objects)
{
    for (int i = 0; i < objects; ++i)
        add(randomChild());
}

void RandomTree::update(Known& object)
{
    Attribute made = randomAttribute();
    const auto same =
        std::ranges::find_if(object.attributes, [&](const Attribute& other) { return other.name == made.name; });
    if (same != object.attributes.end()) {
        if (oneIn(2)) {
            ASSERT_TRUE(store().deleteAttribute(same->name, store().get_object_id(object.dn, object.instance), false));
            object.attributes.erase(same);
            return;
        }
        *same = made;
    } else {
        object.attributes.push_back(made);
    }
    Known changed = object;
    changed.attributes = {made};
    DBObject told = asContainer(changed);
    ASSERT_TRUE(store().sql_update(&told, false, "test")) << object.dn;
}

void RandomTree::remove(std::size_t index)
{
    const std::string dn = m_objects[index].dn;
    ASSERT_TRUE(store().delete_object(dn, m_objects[index].instance, false, "test")) << dn;
    std::erase_if(m_objects, [&](const Known& object) { return object.dn == dn || object.dn.starts_with(dn + ','); });
}

void RandomTree::change(int steps)
{
    for (int i = 0; i < steps && !m_objects.empty(); ++i)
        switch (const std::size_t index = below(m_objects.size()); below(4)) {
        case 0:
            remove(index);
            break;
        case 1:
            add(randomChild());
            break;
        default:
            update(m_objects[index]);
        }
}

bool RandomTree::lasts(const Known& object) const
{
    return std::ranges::any_of(m_objects, [&](const Known& other) {
        return (other.dn == object.dn || other.dn.starts_with(object.dn + ',')) &&
               std::ranges::any_of(other.attributes, [](const Attribute& each) { return each.persistent; });
    });
}

/// One line; the attributes in the order of their names.
std::string line(const Known& object)
{
    std::map<std::string, std::string> sorted;
    for (const Attribute& each : object.attributes)
        if (each.persistent) {
            std::ostringstream value;
            value.precision(17);
            std::visit([&](const auto& content) { value << content; }, each.value);
            sorted[each.name] = std::to_string(each.type) + (each.hidden ? " hidden " : " ") + value.str();
        }
    std::string text = object.dn + '|' + std::to_string(object.instance) + (object.isMOMObject ? " mom" : "") +
                       (object.system ? " system" : "");
    for (const auto& [name, value] : sorted)
        text += "|" + name + ':' + value;
    return text + '\n';
}

std::string RandomTree::persistentPart() const
{
    std::size_t count = 0;
    std::string text;
    for (const Known& object : m_objects)
        if (lasts(object)) {
            ++count;
            text += line(object);
        }
    return std::to_string(count) + " objects\n" + text;
}

std::string RandomTree::asRead() const
{
    Statement rows(store().runtime(), "select count(*) from DBObject where id != 0");
    std::string text = (rows.next() ? std::to_string(rows.integer(0)) : "?") + " objects\n";
    for (const Known& known : m_objects)
        if (const auto found = store().sql_get_object(known.dn, known.instance, "test")) {
            Known object{known.dn, found->MOInstance, found->isMOMObject, found->system, {}};
            for (auto& [name, each] : found->attributes) {
                EXPECT_TRUE(each.persistent) << known.dn << ' ' << name;
                object.attributes.push_back(each);
            }
            text += line(object);
        }
    return text;
}

class RandomTrees : public TempStore {
protected:
    /// What a sudden end leaves, and the start after it.
    static void restart()
    {
        SQLite::destroyInstance(false);
        EXPECT_TRUE(store().loadPermanentConfFile());
    }
    void startAnew()
    {
        SQLite::destroyInstance(false);
        fs::remove(path("flash/pRBSdb"));
        EXPECT_FALSE(store().loadPermanentConfFile());
        EXPECT_EQ(store().loadOrSaveDb(SQLite::Direction::load), 0);
        store().setDatabaseFile(dumpFile()); // a commit saves there
    }

private:
    StoredFiles m_files;
};

} // namespace

TEST_F(RandomTrees, PersistentContentIsTheSameAfterStoreAndRestart)
{
    constexpr int trees = 200;
    const auto chosen = seed();
    SCOPED_TRACE("TAMO_TREE_SEED=" + std::to_string(chosen));
    std::mt19937 random(chosen);
    for (int number = 0; number < trees && !HasFailure(); ++number) {
        SCOPED_TRACE("tree " + std::to_string(number));
        startAnew();
        RandomTree tree(random);
        tree.grow(1 + static_cast<int>(random() % 40));
        ASSERT_TRUE(store().storeDbToFlash());
        tree.change(static_cast<int>(random() % 20));
        const std::string expected = tree.persistentPart();
        if (expected == "0 objects\n")
            continue; // nothing to store: what was stored before stays
        ASSERT_TRUE(store().storePersistentDump(false));
        restart();
        ASSERT_EQ(tree.asRead(), expected);
    }
}
