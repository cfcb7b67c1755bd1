#pragma once

#include <cstdint>

class Attribute;
class DBObject;

/// Who wants to know what the store changes. The store announces on its own thread, in the order of
/// its writes; without a sink it pays one branch for each announcement.
class ChangeSink {
public:
    virtual ~ChangeSink() = default;

    /// A row was inserted (18), updated (23) or deleted (9). Comes out of SQLite's update hook: the
    /// connection must not be used in here.
    virtual void rowChanged(int operation, const char* table, std::int64_t rowId) = 0;

    /// The rows changed so far can be read now. Before every commit of the store's own, and at the
    /// end of a write that joined its caller's transaction.
    virtual void collect() = 0;

    /// This object with all its attributes, or this one attribute of it, goes with the next statement.
    virtual void objectGoes(const DBObject& object) = 0;
    virtual void attributeGoes(const DBObject& object, const Attribute& attribute) = 0;

    /// A COMMIT was tried; what was collected and not discarded since is true.
    virtual void deliver() = 0;

    /// A transaction was rolled back: nothing announced since its BEGIN is true.
    virtual void discard() = 0;
};
