#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

struct sqlite3_stmt;
class Connection;

/// One statement of a connection, given back (reset, bindings cleared) when it goes out of scope.
///
/// Call sites keep the printf-style text with %d (32-bit), %ld (64-bit) and %Q (const char*). Each
/// distinct format is prepared once per connection and its arguments are bound: an apostrophe in a
/// DN is harmless, and a hot read pays for no parsing. The compiler cannot check %Q; the argument
/// types are the caller's care.
///
/// Where the text holds ?1 (the value of an attribute, see ValueBinding.h) arguments take ?2 onward.
/// A %Q straight behind "from " names a table and is formatted in. A format that is in use further
/// up the stack is prepared again instead of being reset under its user.
///
/// A statement that could not be prepared keeps its result code, and stepping it changes nothing, so
/// callers have one place to look. On a store without a connection the code is SQLITE_MISUSE.
class Statement {
public:
    Statement(Connection* connection, const char* format, ...);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// False at the end and on an error; done() tells which.
    bool next();
    int step();
    bool done() const;
    /// The code of the last step, or of the failed preparation.
    int result() const { return m_result; }
    bool prepared() const { return m_statement != nullptr; }

    std::int32_t integer(int column) const;
    std::int64_t integer64(int column) const;
    double real(int column) const;
    bool isNull(int column) const;
    /// Valid until the next step; empty for NULL.
    std::string_view text(int column) const;

    /// For ValueBinding.h.
    sqlite3_stmt* handle() const { return m_statement; }

private:
    void prepare(Connection& connection, std::string_view format);
    void bind(va_list& arguments, bool firstIsValue);

    sqlite3_stmt* m_statement = nullptr; // owned by the connection's cache unless m_own
    bool* m_inUse = nullptr;             // of the cache entry
    std::string m_ownConversions;
    const std::string* m_conversions = nullptr;
    bool m_own = false;
    int m_result = 0;
};
