#pragma once

/// A flag that is set for the length of a scope, however the scope is left.
class [[nodiscard]] FlagScope {
public:
    explicit FlagScope(bool& flag) : m_flag(flag), m_before(flag) { m_flag = true; }
    ~FlagScope() { m_flag = m_before; }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;

private:
    bool& m_flag;
    const bool m_before;
};
