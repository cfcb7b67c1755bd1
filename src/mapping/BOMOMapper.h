#pragma once

#include <string>

/// Maps managed objects to base-band object identifiers, as XML files describe it.
class BOMOMapper {
public:
    virtual ~BOMOMapper() = default;

    /// Reads the mapping files below `path` and stores what they say in the tree. This version reads
    /// none and answers false.
    virtual bool mapBOMO(const std::string& path);
};
