#pragma once

#include "tests/support/ScopedVariable.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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
