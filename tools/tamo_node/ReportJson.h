#pragma once

#include "platform/moaccess/MOTransactionNotify.h"

#include <string>

/// Reads a report from a file, or from standard input for "-":
///
///     {"objects": [{"dn": TEXT, "operation": LETTER,
///                   "attributes": [{"name": TEXT, "type": CODE or NAME, "value": TEXT, "hidden": BOOL}]}]}
///
/// Without "attributes" an object has none; without "type" a value is a string (9), without "hidden" it is
/// not. Letters and codes are not judged: that is the service's part. Throws a std::runtime_error that tells
/// the place in the file and what is wrong there.
TAMO::Messages::TAMO_MOAccessReport readReport(const std::string& path);
