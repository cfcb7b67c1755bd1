#pragma once

#include "platform/utility/DBObject.h"

#include <functional>
#include <string>
#include <string_view>

class Database;

/// An object met on a walk.
struct TreeNode {
    const DBObject& object;
    const std::string& dn; ///< whole DN
    std::size_t depth;     ///< 0 for the object the walk began at
    bool lastOfSiblings;
};

/// Visits an object and everything below it, parents before children and siblings in the order of
/// pairLess (then MOInstance), which depends on nothing but their names. False when `dn` is not there.
[[nodiscard]] bool walkTree(Database& database, const std::string& dn,
                            const std::function<void(const TreeNode&)>& visit);

/// Orders pairs as a person would: numbers by value (Cell=2 before Cell=10), the rest by bytes.
bool pairLess(std::string_view left, std::string_view right);
