#pragma once

#include <string>

/// The tree that stands in for the root directory of a node whose commands look for files there
/// (TAMO_NODE_ROOT): /mnt/activecfg, which leads to the configuration area of the partition that is booted,
/// and the script that prepares a software fallback by copying it. A script that is there already is kept.
[[nodiscard]] bool makeNodeRoot(const std::string& root, const std::string& configurationArea, std::string& problem);
