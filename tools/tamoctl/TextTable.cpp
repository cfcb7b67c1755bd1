// Lists for the eye: what the verbs print in columns when JSON was not asked for.

#include "tools/tamoctl/TextTable.h"

#include "tools/tamoctl/TextCoding.h"

#include <algorithm>

void printTable(Context& context, const std::vector<Row>& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], screenWidth(row[column]));
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t column = 0; column + 1 < widths.size(); ++column)
            line.append(row[column]).append(widths[column] + 2 - screenWidth(row[column]), ' ');
        context.print(line + row.back());
    }
}
