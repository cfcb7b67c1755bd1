// printf-style statement texts as prepared, bound and cached SQLite statements.

#include "store/Statement.h"

#include "store/Connection.h"

#include <sqlite3.h>

#include <memory>
#include <new>

namespace {

/// A format as SQLite is to see it, and the conversions its arguments need ('d', 'l', 'Q').
struct Translated {
    std::string sql;
    std::string conversions;
};

Translated translate(std::string_view format)
{
    Translated out;
    int parameter = format.find("?1") == std::string_view::npos ? 1 : 2;
    for (std::size_t at = 0; at < format.size(); ++at) {
        if (format[at] != '%' || at + 1 == format.size()) {
            out.sql += format[at];
            continue;
        }
        char conversion = format[++at];
        if (conversion == '%') {
            out.sql += '%';
            continue;
        }
        if (conversion == 'l')
            ++at; // the d that follows
        out.conversions += conversion;
        out.sql.append("?").append(std::to_string(parameter++));
    }
    return out;
}

constexpr std::string_view tableConversion = "from %Q";

/// The format with the table it names filled in, quoted.
std::string withTable(std::string_view format, std::size_t at, const char* table)
{
    const std::unique_ptr<char, decltype(&sqlite3_free)> quoted(sqlite3_mprintf("from \"%w\"", table), &sqlite3_free);
    if (!quoted)
        throw std::bad_alloc();
    std::string filled(format.substr(0, at));
    filled.append(quoted.get()).append(format.substr(at + tableConversion.size()));
    return filled;
}

} // namespace

Statement::Statement(Connection* connection, const char* format, ...) : m_result(SQLITE_MISUSE)
{
    if (!connection || !connection->isOpen())
        return;
    va_list arguments;
    va_start(arguments, format);
    const std::string_view text(format);
    const std::size_t table = text.find(tableConversion);
    if (table == std::string_view::npos)
        prepare(*connection, text);
    else
        prepare(*connection, withTable(text, table, va_arg(arguments, const char*)));
    if (m_statement)
        bind(arguments, text.find("?1") != std::string_view::npos);
    va_end(arguments);
}

Statement::~Statement()
{
    if (m_own) {
        sqlite3_finalize(m_statement);
        return;
    }
    if (!m_statement)
        return;
    sqlite3_reset(m_statement);
    sqlite3_clear_bindings(m_statement);
    *m_inUse = false;
}

void Statement::prepare(Connection& connection, std::string_view format)
{
    auto found = connection.m_prepared.find(format);
    if (found != connection.m_prepared.end() && !found->second.inUse && sqlite3_expired(found->second.statement)) {
        // Prepared again here, so that a refusal is one of the preparation whatever ran before.
        sqlite3_finalize(found->second.statement);
        connection.m_prepared.erase(found);
        found = connection.m_prepared.end();
    }
    if (found != connection.m_prepared.end() && !found->second.inUse) {
        found->second.inUse = true;
        m_statement = found->second.statement;
        m_inUse = &found->second.inUse;
        m_conversions = &found->second.conversions;
        return;
    }
    Translated translated = translate(format);
    m_own = found != connection.m_prepared.end();
    sqlite3_stmt* prepared = nullptr;
    m_result =
        sqlite3_prepare_v3(connection.handle(), translated.sql.c_str(), static_cast<int>(translated.sql.size()) + 1,
                           m_own ? 0 : SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    if (m_result != SQLITE_OK)
        return;
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> guard(prepared, &sqlite3_finalize);
    if (m_own) {
        m_statement = guard.release();
        m_ownConversions = std::move(translated.conversions);
        m_conversions = &m_ownConversions;
        return;
    }
    auto& entry = connection.m_prepared[std::string(format)];
    m_statement = guard.release();
    entry = {m_statement, std::move(translated.conversions), true};
    m_inUse = &entry.inUse;
    m_conversions = &entry.conversions;
}

void Statement::bind(va_list& arguments, bool firstIsValue)
{
    m_result = SQLITE_OK;
    int parameter = firstIsValue ? 2 : 1;
    for (const char conversion : *m_conversions) {
        if (conversion == 'd')
            sqlite3_bind_int(m_statement, parameter++, va_arg(arguments, int));
        else if (conversion == 'l')
            sqlite3_bind_int64(m_statement, parameter++, va_arg(arguments, std::int64_t));
        else
            sqlite3_bind_text(m_statement, parameter++, va_arg(arguments, const char*), -1, SQLITE_TRANSIENT);
    }
}

bool Statement::next() { return step() == SQLITE_ROW; }

int Statement::step()
{
    if (m_statement)
        m_result = sqlite3_step(m_statement);
    return m_result;
}

bool Statement::done() const { return m_result == SQLITE_DONE; }

std::int32_t Statement::integer(int column) const { return sqlite3_column_int(m_statement, column); }

std::int64_t Statement::integer64(int column) const { return sqlite3_column_int64(m_statement, column); }

double Statement::real(int column) const { return sqlite3_column_double(m_statement, column); }

bool Statement::isNull(int column) const { return sqlite3_column_type(m_statement, column) == SQLITE_NULL; }

std::string_view Statement::text(int column) const
{
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return bytes ? std::string_view(bytes, static_cast<std::size_t>(sqlite3_column_bytes(m_statement, column)))
                 : std::string_view();
}
