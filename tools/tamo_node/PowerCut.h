#pragma once

#include <cstdint>
#include <string>
#include <vector>

class Medium;

/// Does to a node's files what a power cut does: of what was written since it was last synchronised, blocks
/// are dropped, torn, or arrive before others written earlier; files that are new, removed or replaced may
/// or may not be so. The same seed and files give the same result. Nothing that writes to the files may run.
/// Returns a line for each file that was hit; lines that begin with "cannot" tell of a failure.
std::vector<std::string> loseUnsynchronised(const Medium& medium, std::uint64_t seed);
