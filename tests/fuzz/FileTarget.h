#pragma once

#include "tests/fuzz/Target.h"

#include <string>
#include <vector>

/// What the targets have in common whose reader takes a path. Their corpora are text, and made by hand.
namespace Fuzz {

/// The process's own file for the input. The log is silent from the first call on.
const InputFile& inputFile();

/// The text as it stands in XML, in an element or in an attribute's quotes.
std::string escaped(const std::string& text);

/// XML's own words, and the reader's.
Grammar xmlGrammar(std::vector<std::string> words);

/// Reads a file twice, and once more as `write` writes what was read; the results are to be equal. Each tells whether
/// the file was `accepted`, and the `places` that it reached.
template <class Read, class Write>
int runOnFile(const std::uint8_t* data, std::size_t size, Read read, Write write)
{
    const SameDescriptors descriptors;
    inputFile().write(std::string(reinterpret_cast<const char*>(data), size));
    const auto result = read();
    reached(result.accepted ? "accepted" : "refused");
    for (const std::string& place : result.places)
        reached(place);
    require(read() == result, "a file says the same when read twice");
    if (result.accepted) {
        inputFile().write(write(result));
        require(read() == result, "what was read can be written and read");
    }
    return 0;
}

} // namespace Fuzz
