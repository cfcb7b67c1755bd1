#pragma once

#include <string>

/// The service's claim on its runtime directory. The store deletes and rewrites the runtime database
/// file, so before it is made the directory must be there, be nobody else's, and not be the home of
/// a file that must last.
class RuntimeGuard {
public:
    RuntimeGuard() = default;
    ~RuntimeGuard();
    RuntimeGuard(const RuntimeGuard&) = delete;
    RuntimeGuard& operator=(const RuntimeGuard&) = delete;

    /// Takes the directory named by TAMO_DB_RUNTIME_PATH until the guard goes. False, with an error
    /// line that says why and nothing touched, when the variable is unset, the directory is missing
    /// or not writable, it is also the permanent, backup or common database's, or another instance
    /// holds it.
    [[nodiscard]] bool claim();

private:
    bool lock(const std::string& directory);

    int m_lock = -1;
};
