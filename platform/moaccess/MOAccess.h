#pragma once

#include <string>

/// The subscription of this process to the reports of the node's management agent. Reports reach the
/// handler of the framework's messages, under their message number, while there is one.
class MOAccess {
public:
    MOAccess() = default;
    /// Ends the subscription.
    ~MOAccess();
    MOAccess(const MOAccess&) = delete;
    MOAccess& operator=(const MOAccess&) = delete;

    /// Subscribes: "*" stands for every object, `destination` is the receiver ("/toDB" is the database).
    /// Throws a std::exception that says why when that fails.
    void RegisterToNotification(const std::string& key, const std::string& destination);
    void UnRegisterNotifications();
};
