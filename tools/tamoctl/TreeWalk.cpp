// Walks a subtree with one request for the children of each object. A list of what is still to be
// visited takes the place of recursion: trees may be deep.

#include "tools/tamoctl/TreeWalk.h"

#include "tools/client/Database.h"
#include "values/DistinguishedName.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

struct Pending {
    std::unique_ptr<DBObject> object;
    std::string dn;
    std::size_t depth;
    bool last;
    /// Not for a second instance of a DN: the service finds children by DN, the first instance's.
    bool descend;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

std::string_view leadingNumber(std::string_view text)
{
    return text.substr(0, static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin()));
}

/// Compares digits by the number they stand for: without leading zeros, the longer is greater.
int compareNumbers(std::string_view left, std::string_view right)
{
    left.remove_prefix(std::min(left.find_first_not_of('0'), left.size()));
    right.remove_prefix(std::min(right.find_first_not_of('0'), right.size()));
    if (left.size() != right.size())
        return left.size() < right.size() ? -1 : 1;
    return left.compare(right);
}

bool siblingLess(const std::unique_ptr<DBObject>& left, const std::unique_ptr<DBObject>& right)
{
    if (left->dn != right->dn)
        return pairLess(left->dn, right->dn);
    return left->MOInstance < right->MOInstance;
}

/// The children of a visited object, the one to visit first at the back.
void addChildren(Database& database, const Pending& parent, std::vector<Pending>& pending)
{
    auto children = database.children(parent.dn, parent.object->MOInstance);
    std::sort(children.begin(), children.end(), siblingLess);
    for (std::size_t i = children.size(); i-- > 0;) {
        const bool descend = i == 0 || children[i - 1]->dn != children[i]->dn;
        std::string dn = joinDn(parent.dn, quotedPair(children[i]->dn));
        const bool last = i + 1 == children.size();
        pending.push_back({std::move(children[i]), std::move(dn), parent.depth + 1, last, descend});
    }
}

} // namespace

bool walkTree(Database& database, const std::string& dn, const std::function<void(const TreeNode&)>& visit)
{
    auto root = database.fetch(dn);
    if (!root)
        return false;
    std::vector<Pending> pending;
    pending.push_back({std::move(root), dn, 0, true, true});
    while (!pending.empty()) {
        const Pending next = std::move(pending.back());
        pending.pop_back();
        visit({*next.object, next.dn, next.depth, next.last});
        if (next.descend)
            addChildren(database, next, pending);
    }
    return true;
}

bool pairLess(std::string_view left, std::string_view right)
{
    const std::string_view wholeLeft = left;
    const std::string_view wholeRight = right;
    while (!left.empty() && !right.empty()) {
        if (isDigit(left.front()) && isDigit(right.front())) {
            const std::string_view leftNumber = leadingNumber(left);
            const std::string_view rightNumber = leadingNumber(right);
            if (const int order = compareNumbers(leftNumber, rightNumber); order != 0)
                return order < 0;
            left.remove_prefix(leftNumber.size());
            right.remove_prefix(rightNumber.size());
        } else if (left.front() != right.front()) {
            return left.front() < right.front();
        } else {
            left.remove_prefix(1);
            right.remove_prefix(1);
        }
    }
    if (left.empty() && right.empty())
        return wholeLeft < wholeRight; // numbers that differ only in leading zeros
    return left.empty();
}
