#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

/// Sets (or, without a value, unsets) an environment variable for one scope.
class ScopedVariable {
public:
    ScopedVariable(std::string name, const std::optional<std::string>& value) : m_name(std::move(name))
    {
        if (const char* const old = std::getenv(m_name.c_str()))
            m_old = old;
        set(value);
    }
    ~ScopedVariable() { set(m_old); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    void set(const std::optional<std::string>& value)
    {
        value ? setenv(m_name.c_str(), value->c_str(), 1) : unsetenv(m_name.c_str());
    }
    std::string m_name;
    std::optional<std::string> m_old;
};
