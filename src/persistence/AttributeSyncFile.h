#pragma once

#include "values/AttributeSyncPair.h"

#include <cstddef>
#include <functional>
#include <string>

class XmlFile;

/// The name and reading of the file that maps deprecated attributes to their successors. Knows values and
/// platform only: the operator's client reads such files, too.
namespace AttributeSyncFile {

inline constexpr const char* name = "deprecated_attribute_mapping.xml";
/// Files above this size, in bytes, are refused.
inline constexpr std::size_t maxSize = 32 * 1024 * 1024;

using TakePair = std::function<void(AttributeSyncPair pair)>;

/// Hands over the pairs in the order of the file, with the blanks around their texts cut off. False when
/// the file has no element below its root. Throws a std::exception that says why a file is refused;
/// pairs in front of the fault were handed over by then.
bool read(const XmlFile& file, const TakePair& take);

} // namespace AttributeSyncFile
