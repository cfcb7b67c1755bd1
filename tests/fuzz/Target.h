#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// One reader of foreign bytes under fuzzing: a function of the form that coverage-guided fuzzers call,
/// and what our own driver (Driver.cpp) needs to make inputs that get far.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Fuzz {

using Input = std::string; ///< any bytes

/// How mutations are made beyond single bytes.
struct Grammar {
    enum class Form { bytes, messagePack, text, xml };
    Form form = Form::bytes;
    std::string separator;          ///< between the records of an input; empty for one without records
    std::vector<std::string> words; ///< texts worth putting in
};

/// How often a place must be reached, so that a run which got nowhere does not pass for one that found
/// nothing.
struct Minimum {
    std::string place;
    std::uint64_t byCorpus;
    std::uint64_t byCampaign;
};

// What a target gives.

/// Well-formed and hostile inputs by file name, from the real encodings. Those whose name begins with "good" are
/// taken for every second mutation.
std::map<std::string, Input> seeds();
Grammar grammar();
std::vector<Minimum> minimums();
/// After the last input: gives back what the target held between inputs.
void finish();

// What a target takes (Target.cpp).

/// Ends the process when something does not hold; the driver leaves the input behind.
void require(bool holds, const std::string& what);

/// Counts an input, or a part of one, that got to the place.
void reached(const std::string& place);
const std::map<std::string, std::uint64_t>& places();

/// Of one input: ends the process when files that were opened in its scope are open at its end. The process's first
/// input may leave something behind for the next; to repeat such a failure, name its file twice.
class SameDescriptors {
public:
    SameDescriptors();
    ~SameDescriptors();
    SameDescriptors(const SameDescriptors&) = delete;
    SameDescriptors& operator=(const SameDescriptors&) = delete;

private:
    std::size_t m_before;
};

/// A file that lives as long as the process, for readers that take a path. The log is silent while it lives.
class InputFile {
public:
    InputFile();
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    void write(const std::string& content) const;
    const std::string& directory() const { return m_directory; }
    std::string path() const { return m_directory + "/" + name; }

    static constexpr const char* name = "input";

private:
    std::string m_directory;
};

} // namespace Fuzz
