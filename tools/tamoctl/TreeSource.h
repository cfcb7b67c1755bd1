#pragma once

#include "platform/utility/DBObject.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class Context;

/// An object met in a tree, and where it can be read again.
struct SourceObject {
    const DBObject& object;
    const std::string& dn; ///< whole DN, with quotes only where a pair needs them
    std::int64_t place;    ///< meaning known to the source
};

/// A tree to read: that of a running service, an exported file, or a database file.
class TreeSource {
public:
    virtual ~TreeSource() = default;

    /// Visits the objects of the tree, each once, in an order of the source's own. A tree that cannot
    /// say what its roots are visits what stands at and below `roots`; the others everything.
    virtual void visit(const std::vector<std::string>& roots,
                       const std::function<void(const SourceObject&)>& visitor) = 0;
    /// The object once more; null when it is gone.
    virtual std::unique_ptr<DBObject> again(const std::string& dn, std::int32_t instance, std::int64_t place) = 0;

    /// False for a tree that has to be told its roots: a service answers no question about them.
    virtual bool knowsRoots() const { return true; }
    /// False for a tree that stands for some subtrees only, such as an export.
    virtual bool isWhole() const { return true; }
    /// Whether objects come with their parked values.
    virtual bool knowsParked() const { return true; }
};

/// The tree that `name` names: "live" (the service at --dir), a directory with the sockets of a
/// service or with a node, or a file, whose content tells what it is. Throws a Failure (usage) when it
/// is none of these, and what connecting throws when nobody answers.
std::unique_ptr<TreeSource> openTree(Context& context, const std::string& name);
