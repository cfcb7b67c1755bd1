#pragma once

#include <optional>
#include <string>

/// Where the database files live. Every location comes from an environment variable with a built-in
/// default; docs/files.md lists them.

/// Longest environment value used, in characters. One of 4096 is cut to this; more counts as unset.
inline constexpr std::size_t maxPathLength = 4095;

/// Longest runtime directory, in characters; a longer value gives the empty directory.
inline constexpr std::size_t maxRuntimePathLength = 498;

/// Directory kinds of Get_TAMO_DB_path.
enum DbDirectory : int { permanentDirectory = 0, dumpDirectory = 1 };

/// The value of a path variable under the length rule above; empty when it does not count.
std::optional<std::string> environmentPath(const char* variable);

/// Fills `path` with the directory of the permanent configuration file (kind 0: TAMO_DB_FILE_PATH,
/// else the directory of this executable, "" when that cannot be found out) or of the dump file
/// (kind 1: TAMO_DB_DUMP_FILE_PATH, else "."). No separator at the end.
void Get_TAMO_DB_path(std::string& path, int kind);

/// The directory of the running executable as the first line of "/proc/self/maps" names it. That
/// line changes when the file is replaced, so it is read once and kept. When it gives no absolute
/// path of the executable, "/proc/self/exe" is asked instead.
std::string executableDirectory();

/// TAMO_DB_RUNTIME_PATH; "" when it is unset or too long.
std::string runtimeDirectory();

std::string permanentFile();
std::string dumpFile();
std::string runtimeFile();

/// The file that sql_insert_to_commondb writes: TAMO_PERSISTENT_STORAGE and "commondb", with a
/// separator only where the value holds one but not at its end. Empty when the variable is unset.
std::optional<std::string> commonDbWriteFile();

/// A regular, readable file of any size. Never opens it: closing a descriptor of a file that SQLite
/// has open would drop SQLite's locks.
bool isRegularFile(const std::string& path);

/// Removes a database file with its -journal, -wal and -shm. False, errno set, when the file itself
/// could not be removed.
bool removeWithSideFiles(const std::string& path);

/// Removes what SQLite keeps beside a database file, and leaves the file: for one whose content is
/// about to be replaced, onto which a journal would be rolled back.
void removeSideFiles(const std::string& path);

/// Puts a file or directory that is in the way aside as NAME.rejected, its side files with it. A file
/// replaces the one put aside before; where one of the two is a directory the older is put aside, too.
/// False, errno set, when it could not be moved.
bool moveAside(const std::string& path);

/// The name moveAside() gives.
std::string rejectedName(const std::string& path);

/// The name under which a store keeps the file that it is replacing.
std::string previousName(const std::string& path);
