#pragma once

#include <string>

class NodeLayout;

/// The files that the service only reads, on their way into a node.
namespace ConfFiles {

/// Where they stand beside a service program: conf beside the directory it is in.
std::string besideProgram(const std::string& program);

/// Copies each *.xml file of `source` that the node's conf does not have yet; what stands there is never
/// replaced, because it may have been edited. False with a reason when a file cannot be copied whole, or
/// when `source` is not there and `mustExist`.
[[nodiscard]] bool install(const NodeLayout& layout, const std::string& source, bool mustExist, std::string& problem);

/// What the node lacks, as a warning; empty when it has what it needs to keep its configuration.
std::string missing(const NodeLayout& layout, const std::string& source);

} // namespace ConfFiles
