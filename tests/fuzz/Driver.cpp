// Runs a fuzz target over its corpus and then over a fixed number of mutations of it, which are the same in
// every run. The input at work stands in a file, whatever way the process ends: the target run with that file's
// name alone repeats the failure.

#include "tests/fuzz/Mutator.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace fs = std::filesystem;
using Fuzz::Input;

namespace {

constexpr unsigned secondsPerInput = 120; // then SIGALRM ends the process

constexpr const char* usage = "usage: %s FILE...                       runs the inputs given\n"
                              "       %s --corpus DIR [--runs N] [--seed N]  runs a corpus, and N mutations of it\n"
                              "       %s --write-seeds DIR             writes the target's own inputs\n";

struct Options {
    std::string corpus;
    std::string writeSeeds;
    std::uint64_t runs = 0;
    std::uint64_t seed = 1;
    std::vector<std::string> files;
};

bool readNumber(const char* text, std::uint64_t& number)
{
    const char* const end = text + std::strlen(text);
    return std::from_chars(text, end, number).ptr == end;
}

bool readOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.starts_with("--") && ++i == argc)
            return false;
        if (word == "--corpus")
            options.corpus = argv[i];
        else if (word == "--write-seeds")
            options.writeSeeds = argv[i];
        else if (word == "--runs" || word == "--seed") {
            if (!readNumber(argv[i], word == "--runs" ? options.runs : options.seed))
                return false;
        } else if (word.starts_with("--"))
            return false;
        else
            options.files.push_back(word);
    }
    return argc > 1;
}

Input contentOf(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    Fuzz::require(stream.good(), "opening " + file.string());
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<fs::path> filesOf(const std::string& directory)
{
    std::vector<fs::path> files;
    for (const auto& each : fs::directory_iterator(directory))
        files.push_back(each.path());
    std::ranges::sort(files); // the order decides what a mutation is made of
    return files;
}

/// The file that holds the input at work. It goes when the process ends well.
class InputAtWork {
public:
    explicit InputAtWork(const std::string& program)
        : m_path(fs::absolute(fs::path(program).filename().string() + "." + std::to_string(getpid()) + ".input")),
          m_file(open(m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644))
    {
        Fuzz::require(m_file >= 0, "creating " + m_path.string());
    }
    ~InputAtWork()
    {
        close(m_file);
        fs::remove(m_path);
    }
    InputAtWork(const InputAtWork&) = delete;
    InputAtWork& operator=(const InputAtWork&) = delete;

    void run(const Input& input) const
    {
        const auto size = static_cast<off_t>(input.size());
        Fuzz::require(pwrite(m_file, input.data(), input.size(), 0) == size && ftruncate(m_file, size) == 0,
                      "writing the input to " + m_path.string());
        alarm(secondsPerInput);
        // Memory of exactly that size: what is read behind it is seen.
        const std::vector<std::uint8_t> bytes(input.begin(), input.end());
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        alarm(0);
    }
    const fs::path& path() const { return m_path; }

private:
    fs::path m_path;
    int m_file;
};

void writeSeeds(const fs::path& directory)
{
    fs::create_directories(directory);
    for (const auto& [name, input] : Fuzz::seeds())
        std::ofstream(directory / name, std::ios::binary) << input;
}

/// Prints how far the inputs got. False when that is less than it must be.
bool gotFar(bool campaign)
{
    for (const auto& [place, count] : Fuzz::places())
        std::printf("%10llu %s\n", static_cast<unsigned long long>(count), place.c_str());
    bool far = true;
    for (const auto& [place, byCorpus, byCampaign] : Fuzz::minimums()) {
        const std::uint64_t needed = campaign ? byCampaign : byCorpus;
        const auto found = Fuzz::places().find(place);
        if (needed == 0 || (found != Fuzz::places().end() && found->second >= needed))
            continue;
        std::printf("too few: %s, at least %llu are expected\n", place.c_str(),
                    static_cast<unsigned long long>(needed));
        far = false;
    }
    return far;
}

bool runCorpus(const Options& options, const InputAtWork& atWork)
{
    std::vector<Input> corpus;
    std::vector<Input> good;
    for (const fs::path& file : filesOf(options.corpus)) {
        corpus.push_back(contentOf(file));
        if (file.filename().string().starts_with("good"))
            good.push_back(corpus.back());
    }
    Fuzz::require(!corpus.empty(), "inputs in " + options.corpus);
    for (const Input& input : corpus)
        atWork.run(input);
    std::printf("%zu inputs of the corpus, %llu mutations\n", corpus.size(),
                static_cast<unsigned long long>(options.runs));
    Mutator mutator(Fuzz::grammar(), std::move(corpus), std::move(good), options.seed);
    for (std::uint64_t number = 0; number < options.runs; ++number)
        atWork.run(mutator.make(number));
    return gotFar(options.runs > 0);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!readOptions(argc, argv, options)) {
        std::fprintf(stderr, usage, argv[0], argv[0], argv[0]);
        return 2;
    }
    if (!options.writeSeeds.empty()) {
        writeSeeds(options.writeSeeds);
        return 0;
    }
    const InputAtWork atWork(argv[0]);
    std::printf("a failure leaves its input in %s\n", atWork.path().c_str());
    std::fflush(stdout);
    for (const std::string& file : options.files)
        atWork.run(contentOf(file));
    const bool far = options.corpus.empty() || runCorpus(options, atWork);
    Fuzz::finish();
    return far ? 0 : 1;
}
