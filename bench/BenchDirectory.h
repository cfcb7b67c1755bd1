#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

/// A directory of its own for one run, with the environment that the store and the framework read
/// pointing into it. Gone with the object.
class BenchDirectory {
public:
    BenchDirectory()
    {
        const char* const base = std::getenv("TMPDIR");
        m_path = std::string(base ? base : "/tmp") + "/tamo-bench-XXXXXX";
        if (!mkdtemp(m_path.data()))
            std::abort();
        use("TAMO_DB_RUNTIME_PATH", "runtime");
        use("TAMO_DB_FILE_PATH", "flash");
        use("TAMO_DB_DUMP_FILE_PATH", "dump");
        use("TAMO_PERSISTENT_STORAGE", "common");
        use("TAMO_BRM_BACKUP_PATH", "backup");
        use("TAMO_BRM_TEMP_FILE_PATH", "for_backup");
        use("TAMO_FRAMEWORK_DIR", "run");
        setenv("TAMO_LOG_LEVEL", "error", 1);
    }
    ~BenchDirectory() { std::filesystem::remove_all(m_path); }
    BenchDirectory(const BenchDirectory&) = delete;
    BenchDirectory& operator=(const BenchDirectory&) = delete;

    std::string below(const std::string& name) const { return m_path + "/" + name; }

private:
    void use(const char* variable, const char* name)
    {
        std::filesystem::create_directory(below(name));
        setenv(variable, below(name).c_str(), 1);
    }

    std::string m_path;
};
