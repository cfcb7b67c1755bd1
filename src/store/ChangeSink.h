#pragma once

#include "store/NotificationList.h"

#include <span>

/// Who takes the committed changes. Called on the store's thread, outside any transaction of the
/// store; it may write to the store, which delivers those changes before the call returns. An
/// exception costs this one change its delivery and nothing else.
class ChangeSink {
public:
    virtual ~ChangeSink() = default;

    /// One changed object: all items of it that belong together, its attributes' among them, and the
    /// operation on the object. Its last item tells its DNs.
    virtual void objectChanged(std::span<const NotificationItem> items, std::int32_t operation) = 0;

    /// One item, after the object whose items went before it.
    virtual void itemChanged(const NotificationItem& item) = 0;
};
