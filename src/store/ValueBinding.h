#pragma once

#include "values/Attribute.h"

#include <cstdint>

class Statement;

/// How attribute values pass between the variant and the `value` column. 8-bit values travel as the
/// unsigned byte, 32-bit unsigned ones as their bit pattern; texts with their exact length.

/// The code under which an attribute is stored: its declared one when that fits the value.
std::int32_t codeToStore(const Attribute& attribute);

/// Binds the value to ?1 as `type` asks. Throws std::bad_variant_access when the value holds another
/// kind. The text must stay as it is until the statement is stepped. An invalid type logs an error
/// line and leaves ?1 unbound, so that NULL is stored.
void bindValue(Statement& statement, std::int32_t type, const Value& value);

/// The value in a column, by its stored type; NULL gives 0 or the empty text. An invalid type gives
/// the 8-bit character 0 and is logged as "Attribute value type %d invalid!" behind `prefix`.
Value readValue(const Statement& row, int column, std::int32_t type, const char* prefix = "");

/// Writes the debug line of an attribute that is about to be written, with the conversion its type
/// asks for: "<operation>: <verb> attribute '…' value '…' (type:…)<gap>into database by <client>".
void logWrite(const char* operation, const char* verb, const char* gap, const Attribute& attribute, std::int32_t type,
              const std::string& client);
