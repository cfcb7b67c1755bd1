#pragma once

#include "tools/tamoctl/Context.h"

#include <string>
#include <vector>

using Row = std::vector<std::string>;

/// Prints rows in columns, the first row their heads. The last column is not filled up.
void printTable(Context& context, const std::vector<Row>& rows);
