#pragma once

#include "store/ChangeSink.h"
#include "store/SQLite.h"

#include <functional>
#include <string>
#include <utility>

/// Takes the store's changes while it lives and writes them down: "18 A=1 a=x; " for an item and
/// "{18 A=1: a=x(18)}" for an object.
class Recorder : public ChangeSink {
public:
    Recorder() { SQLite::getInstance().announceTo(this); }
    ~Recorder() override { SQLite::getInstance().announceTo(nullptr); }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void objectChanged(std::span<const NotificationItem> items, std::int32_t operation) override
    {
        objects += "{" + std::to_string(operation) + " " + items.back().realDn() + ":";
        for (const NotificationItem& item : items)
            if (!item.ofObject())
                objects += " " + attributeOf(item) + "(" + std::to_string(item.operation) + ")";
        objects += "} ";
    }

    void itemChanged(const NotificationItem& item) override
    {
        told += std::to_string(item.operation) + " " + item.realDn();
        if (!item.ofObject())
            told += " " + attributeOf(item);
        told += "; ";
        if (onItem)
            onItem(item);
    }

    std::string take() { return std::exchange(told, {}); }
    std::string takeObjects() { return std::exchange(objects, {}); }

    std::function<void(const NotificationItem&)> onItem;

private:
    static std::string attributeOf(const NotificationItem& item)
    {
        return item.attribute + "=" + Attribute(false, "", item.value, 0, false, 0, false, false).ToStr();
    }

    std::string told;
    std::string objects;
};
