#pragma once

#include "tests/support/PrivateTmp.h"
#include "tests/support/TempStore.h"

#include <filesystem>
#include <fstream>
#include <iterator>

/// What tests of storing share, whatever fixture they stand on. Held by value: the turn comes with it.
class StoredFiles {
public:
    /// Every name in /tmp that a store uses.
    static constexpr const char* fixedNames[] = {
        "/tmp/tmp_pRBSdb", "/tmp/tmp_pRBSdb-journal", "/tmp/tmp_pRBSdb-wal", "/tmp/tmp_pRBSdb-shm",
        "/tmp/first.dump", "/tmp/second.dump",        "/tmp/diff.txt"};

    /// Nothing that a store makes on its way is left.
    static bool tidy()
    {
        namespace fs = std::filesystem;
        for (const char* name : fixedNames)
            if (fs::exists(fs::symlink_status(name)))
                return false;
        return true;
    }
    static std::string bytes(const std::string& file)
    {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static std::string objects(const std::string& file)
    {
        return queryFile(file, "select dn from DBObject order by dn");
    }
    static std::string values(const std::string& file)
    {
        return queryFile(file, "select name||'='||value from Attribute order by name,value");
    }

private:
    StoringTurn m_turn;
};

/// A changed attribute that outlives a restart.
inline Attribute kept(const std::string& name, const std::string& value)
{
    Attribute made = text(name, value);
    made.persistent = true;
    return made;
}
