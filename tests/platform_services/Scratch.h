#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

/// A directory of its own for one test, gone afterwards.
class Scratch {
public:
    Scratch()
    {
        std::string name = (std::filesystem::temp_directory_path() / "tamo_services.XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~Scratch() { std::filesystem::remove_all(m_path); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    std::string path(const std::string& name) const { return (m_path / name).string(); }
    std::string read(const std::string& name) const
    {
        std::ifstream file(m_path / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write(const std::string& name, const std::string& content) const
    {
        std::ofstream(m_path / name, std::ios::binary) << content;
    }

private:
    std::filesystem::path m_path;
};

/// Sets (or, with null, unsets) an environment variable for one scope.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const char* value) : m_name(name)
    {
        if (const char* old = std::getenv(name))
            m_old = old;
        set(value);
    }
    ~ScopedVariable() { set(m_old ? m_old->c_str() : nullptr); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    void set(const char* value) { value ? setenv(m_name, value, 1) : unsetenv(m_name); }
    const char* m_name;
    std::optional<std::string> m_old;
};
