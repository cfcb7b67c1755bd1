#pragma once

#include "platform/utility/DBObject.h"

#include <string>
#include <string_view>

/// Objects as JSON, in the form that get, export and import share (docs/clients.md). Every text is
/// one line. Texts that are not UTF-8 are written as {"base64": …}, infinities as "Infinity" and
/// "-Infinity", floating values with the digits that read back as the very same value.

std::string jsonText(std::string_view text);
std::string jsonValue(const Value& value);
/// {"name": …, "type": …, "value": …, "hidden": …, "persistent": …}
std::string jsonAttribute(const Attribute& attribute);
/// `dn` is the object's whole DN. With `alternates` the parked values are given too.
std::string jsonObject(const DBObject& object, const std::string& dn, bool alternates);

/// The object that a line describes, its attributes marked as to be written. Throws a Failure
/// (usage) that says what is wrong with the line.
DBObject objectFromJson(const std::string& line);
