#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What a start makes of a permanent configuration file, on a normal start (no factory reset, no
/// restore from a backup).
enum class StartUp {
    loads,
    loadsAsDamaged, ///< goes on with the content, but records reset reason 2 and asks for the fallback
    findsNone,      ///< absent, empty or no file: an empty tree
    fallsBack,      ///< loads nothing, records reset reason 2 and asks for the fallback
    loadsNothing,   ///< an empty tree, though there is a file
};

struct FileReport {
    StartUp startUp = StartUp::findsNone;
    std::string why;                            ///< empty for `loads`
    int loadResult = 0;                         ///< SQLite's code
    std::uint64_t size = 0;                     ///< bytes
    std::uint64_t journal = 0;                  ///< bytes beside the file that were applied to the copy
    std::vector<std::string> schemaRemarks;     ///< what is not as the service makes it
    std::vector<std::string> integrityProblems; ///< SQLite's words
    /// None where the file did not tell.
    std::optional<std::int64_t> objects, attributes, persistentAttributes;
    std::map<std::int64_t, std::int64_t> parked; ///< values in alternate storage, by slot
    std::optional<std::int64_t> orphans;         ///< rows whose object is not there
};

/// Examines a database file in a copy. Throws a Failure when nothing can be said about it.
FileReport checkFile(const std::string& path);
