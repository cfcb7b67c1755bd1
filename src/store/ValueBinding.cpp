// Attribute values into and out of SQLite columns, for every write path and every read.

#include "store/ValueBinding.h"

#include "store/SQLite.h"
#include "store/Statement.h"

#include "platform/middleware/Log.h"
#include "values/ValueType.h"

#include <sqlite3.h>

using namespace IPCData;

std::int32_t SQLite::getAttributeValueType(std::size_t alternative)
{
    const std::int32_t type = typeOfAlternative(alternative);
    if (type == INVALID)
        LOG_ERROR("SQLite::%s, Attribute value type %d invalid!", __func__, static_cast<int>(alternative));
    return type;
}

std::int32_t codeToStore(const Attribute& attribute)
{
    const std::int32_t type = storedType(attribute.type, attribute.value);
    return type != INVALID ? type : SQLite::getAttributeValueType(attribute.value.index());
}

void bindValue(Statement& statement, std::int32_t type, const Value& value)
{
    sqlite3_stmt* const handle = statement.handle();
    if (!handle)
        return;
    switch (type) {
    case INT8:
        sqlite3_bind_int(handle, 1, static_cast<std::uint8_t>(std::get<std::int8_t>(value)));
        break;
    case INT16:
        sqlite3_bind_int(handle, 1, std::get<std::int16_t>(value));
        break;
    case INT32:
    case ENUM:
        sqlite3_bind_int(handle, 1, std::get<std::int32_t>(value));
        break;
    case INT64:
        sqlite3_bind_int64(handle, 1, std::get<std::int64_t>(value));
        break;
    case UINT8:
        sqlite3_bind_int(handle, 1, std::get<std::uint8_t>(value));
        break;
    case UINT16:
        sqlite3_bind_int(handle, 1, std::get<std::uint16_t>(value));
        break;
    case UINT32:
        sqlite3_bind_int(handle, 1, static_cast<std::int32_t>(std::get<std::uint32_t>(value)));
        break;
    case UINT64:
        sqlite3_bind_int64(handle, 1, static_cast<std::int64_t>(std::get<std::uint64_t>(value)));
        break;
    case BOOLEAN:
        sqlite3_bind_int(handle, 1, std::get<bool>(value) ? 1 : 0);
        break;
    case DECIMAL64:
        sqlite3_bind_double(handle, 1, std::get<double>(value));
        break;
    case FLOAT:
        sqlite3_bind_double(handle, 1, static_cast<double>(std::get<float>(value)));
        break;
    default:
        if (isTextType(type)) {
            const auto& text = std::get<std::string>(value);
            sqlite3_bind_text(handle, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
        } else {
            LOG_ERROR("Attribute value type %d invalid!", type);
        }
    }
}

Value readValue(const Statement& row, int column, std::int32_t type, const char* prefix)
{
    switch (type) {
    case INT8:
        return static_cast<std::int8_t>(row.integer(column));
    case INT16:
        return static_cast<std::int16_t>(row.integer(column));
    case INT32:
    case ENUM:
        return row.integer(column);
    case INT64:
        return row.integer64(column);
    case UINT8:
        return static_cast<std::uint8_t>(row.integer(column));
    case UINT16:
        return static_cast<std::uint16_t>(row.integer(column));
    case UINT32:
        return static_cast<std::uint32_t>(row.integer(column));
    case UINT64:
        return static_cast<std::uint64_t>(row.integer64(column));
    case BOOLEAN:
        return row.integer(column) != 0;
    case DECIMAL64:
        return row.real(column);
    case FLOAT:
        return static_cast<float>(row.real(column));
    default:
        if (isTextType(type))
            return std::string(row.text(column));
        LOG_ERROR("%sAttribute value type %d invalid!", prefix, type);
        return std::int8_t{0};
    }
}

void logWrite(const char* operation, const char* verb, const char* gap, const Attribute& attribute, std::int32_t type,
              const std::string& client)
{
    if (!mw_log::enabled(mwLogDebug))
        return;
    const char* const name = attribute.name.c_str();
    const Value& value = attribute.value;
    const auto line = [&](int number) {
        LOG_DEBUG("%s: %s attribute '%s' value '%d' (type:%d)%sinto database by %s", operation, verb, name, number,
                  type, gap, client.c_str());
    };
    const auto unsignedLine = [&](unsigned number) {
        LOG_DEBUG("%s: %s attribute '%s' value '%u' (type:%d)%sinto database by %s", operation, verb, name, number,
                  type, gap, client.c_str());
    };
    const auto realLine = [&](double number) {
        LOG_DEBUG("%s: %s attribute '%s' value '%f' (type:%d)%sinto database by %s", operation, verb, name, number,
                  type, gap, client.c_str());
    };
    switch (type) {
    case INT8:
        return line(static_cast<std::uint8_t>(std::get<std::int8_t>(value)));
    case INT16:
        return line(std::get<std::int16_t>(value));
    case INT32:
    case ENUM:
        return line(std::get<std::int32_t>(value));
    case UINT8:
        return line(std::get<std::uint8_t>(value));
    case BOOLEAN:
        return line(std::get<bool>(value) ? 1 : 0);
    case UINT16:
        return unsignedLine(std::get<std::uint16_t>(value));
    case UINT32:
        return unsignedLine(std::get<std::uint32_t>(value));
    case INT64:
        LOG_DEBUG("%s: %s attribute '%s' value '%lld' (type:long long)%sinto database by %s", operation, verb, name,
                  static_cast<long long>(std::get<std::int64_t>(value)), gap, client.c_str());
        return;
    case UINT64:
        LOG_DEBUG("%s: %s attribute '%s' value '%llu' (type:unsigned long long)%sinto database by %s", operation, verb,
                  name, static_cast<unsigned long long>(std::get<std::uint64_t>(value)), gap, client.c_str());
        return;
    case DECIMAL64:
        return realLine(std::get<double>(value));
    case FLOAT:
        return realLine(static_cast<double>(std::get<float>(value)));
    default:
        if (isTextType(type))
            LOG_DEBUG("%s: %s attribute '%s' value '%s' (type:%d)%sinto database by %s", operation, verb, name,
                      std::get<std::string>(value).c_str(), type, gap, client.c_str());
    }
}
