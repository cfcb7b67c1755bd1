// The list's indexes against a plain walk over the same items.

#include "store/NotificationList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

/// What the list must answer, found by looking at every item.
struct Walk {
    std::vector<NotificationItem> items;

    static bool sameObject(const NotificationItem& a, const NotificationItem& b)
    {
        return a.realDn() == b.realDn() && a.MOInstance == b.MOInstance;
    }
    void eraseDuplicate(const NotificationItem& sought)
    {
        const auto same = std::ranges::find_if(items, [&](const NotificationItem& item) {
            return item.ofObject() && sameObject(item, sought) && item.operation == sought.operation;
        });
        if (same != items.end())
            items.erase(same);
    }
    const NotificationItem* latest(auto matches) const
    {
        for (auto item = items.rbegin(); item != items.rend(); ++item)
            if (matches(*item))
                return &*item;
        return nullptr;
    }
};

} // namespace

TEST(NotificationList, AnswersLikeAWalkOverItsItems)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](auto... choices) {
        const std::common_type_t<decltype(choices)...> all[] = {choices...};
        return all[random() % sizeof...(choices)];
    };
    NotificationList list;
    Walk walk;
    int found = 0;
    for (int step = 0; step < 20000; ++step) {
        NotificationItem item;
        item.dn = pick("A=1", "A=2", "A:s");
        item.wholeDn = std::string(pick("", "P=1,", "P=2,")) + item.dn;
        if (item.wholeDn == item.dn && random() % 2 == 0)
            item.wholeDn.clear(); // the two forms of an object directly under the base object
        item.MOInstance = pick(1, 2);
        item.operation = pick(9, 18, 23);
        item.attribute = pick("", "", "a", "b");
        item.value = std::int32_t{pick(1, 2)};
        switch (random() % 64) {
        case 0:
            list.clear();
            walk.items.clear();
            break;
        case 1: {
            const std::size_t size = random() % (walk.items.size() + 2);
            list.cutBack(size);
            walk.items.resize(std::min(size, walk.items.size()));
            break;
        }
        default:
            if (item.ofObject()) {
                list.EraseDuplicate(item);
                walk.eraseDuplicate(item);
                const auto* latest =
                    walk.latest([&](const auto& other) { return other.ofObject() && Walk::sameObject(other, item); });
                const NotificationItem* const answered = list.latestOfObject(item);
                ASSERT_EQ(answered != nullptr, latest != nullptr);
                ASSERT_TRUE(!latest || *answered == *latest);
            } else {
                const bool contains = std::ranges::count(walk.items, item) != 0;
                ASSERT_EQ(list.contains(item), contains);
                found += contains ? 1 : 0;
                const auto* latest = walk.latest(
                    [&](const auto& other) { return other.dn == item.dn && other.attribute == item.attribute; });
                const NotificationItem* const answered = list.latestOf(item.dn, item.attribute);
                ASSERT_EQ(answered != nullptr, latest != nullptr);
                ASSERT_TRUE(!latest || *answered == *latest);
            }
            list.append(item);
            walk.items.push_back(item);
        }
        ASSERT_EQ(list.size(), walk.items.size());
        ASSERT_TRUE(!list.last() || *list.last() == walk.items.back());
    }
    EXPECT_GT(found, 100) << "the look-ups met something";
}
