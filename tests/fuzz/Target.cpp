// What the targets share; a coverage-guided fuzzer links this and a target, without our driver.

#include "tests/fuzz/Target.h"

#include "platform/host/LogSink.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <utility>

namespace fs = std::filesystem;

namespace Fuzz {

namespace {

std::map<std::string, std::uint64_t>& counts()
{
    static std::map<std::string, std::uint64_t> it;
    return it;
}

std::size_t openDescriptors()
{
    std::size_t open = 0;
    for ([[maybe_unused]] const auto& each : fs::directory_iterator("/proc/self/fd"))
        ++open;
    return open;
}

} // namespace

void require(bool holds, const std::string& what)
{
    if (holds)
        return;
    std::fprintf(stderr, "fuzz: does not hold: %s\n", what.c_str());
    std::abort();
}

void reached(const std::string& place) { ++counts()[place]; }

const std::map<std::string, std::uint64_t>& places() { return counts(); }

SameDescriptors::SameDescriptors() : m_before(openDescriptors()) {}

SameDescriptors::~SameDescriptors()
{
    static bool first = true;
    const std::size_t now = openDescriptors();
    require(std::exchange(first, false) || now == m_before,
            std::to_string(now) + " descriptors are open, " + std::to_string(m_before) + " were");
}

InputFile::InputFile()
{
    const fs::path memory = "/dev/shm"; // a campaign writes tens of thousands of files
    std::string made = ((fs::is_directory(memory) ? memory : fs::temp_directory_path()) / "tamo_fuzz.XXXXXX").string();
    require(mkdtemp(made.data()) != nullptr, "a directory for the input");
    m_directory = made;
    setenv("TAMO_LOG_FILE", "/dev/null", 1);
    setenv("TAMO_LOG_LEVEL", "debug", 1); // the lines are formatted, from what the input holds
    mw_log::configure();
    std::cerr.rdbuf(nullptr); // some readers say there, too, what is wrong with a file
}

InputFile::~InputFile() { fs::remove_all(m_directory); }

void InputFile::write(const std::string& content) const { std::ofstream(path(), std::ios::binary) << content; }

} // namespace Fuzz
