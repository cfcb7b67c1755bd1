#pragma once

#include "platform/utility/DBObject.h"

#include <string>

/// Objects as a person reads them: the DN, then a line for each attribute with name, type, flags and
/// value in columns. No newline at the end.
std::string objectText(const DBObject& object, const std::string& dn);

/// "persistent", "hidden", both or nothing.
std::string flagsText(const Attribute& attribute);

/// A value alone; a text as it is, byte for byte.
std::string bareValueText(const Value& value);
