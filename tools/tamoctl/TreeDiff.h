#pragma once

#include "platform/utility/DBObject.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class Interruption;
class TreeSource;

/// An attribute that is not the same in both objects; null where it is not there.
struct AttributeDifference {
    const Attribute* a;
    const Attribute* b;
};

enum class Where { onlyA, onlyB, both };

/// An object that is not the same in both trees.
struct ObjectDifference {
    const std::string& dn;
    std::int32_t instance;
    Where where;
    /// With `both` the objects; null for one that went away while the trees were compared.
    const DBObject* a = nullptr;
    const DBObject* b = nullptr;
    std::vector<AttributeDifference> attributes = {}; ///< by name
    std::vector<AttributeDifference> parked = {};     ///< values in alternate storage
};

struct DiffOptions {
    /// Only these and what stands below them; empty: everything that both trees can speak of.
    std::vector<std::string> below;
    /// Only persistent attributes and parked values, on their objects and the objects above them.
    bool persistentOnly = false;
    /// Ends the comparison with a Failure (interrupted) when it has come.
    const Interruption* interruption = nullptr;
};

struct DiffSummary {
    std::size_t objectsA = 0, objectsB = 0; ///< compared
    std::size_t onlyA = 0, onlyB = 0, changed = 0;
    std::vector<std::string> below; ///< what the comparison was limited to; empty: nothing
    bool parkedCompared = true;     ///< false: one of the trees does not tell its parked values
    bool equal() const { return onlyA + onlyB + changed == 0; }
};

/// Compares two trees and tells each difference, in the order of the objects' names. Of each object
/// the name and a fingerprint is held; what differs is read again.
DiffSummary diffTrees(TreeSource& a, TreeSource& b, const DiffOptions& options,
                      const std::function<void(const ObjectDifference&)>& tell);
