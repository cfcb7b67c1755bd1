#pragma once

#include <array>
#include <string>

/// Two attributes that always carry the same value: one that the model has given up and its successor.
struct AttributeSyncPair {
    struct Side {
        std::string dn; ///< whole DN; in the mapping file its pairs may hold % for any text
        std::string attribute;
        bool operator==(const Side&) const = default;
    };
    std::array<Side, 2> sides;
};
