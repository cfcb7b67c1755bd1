// The verb corrupt: damages one file of a node, as failing storage would.
#include "Access.h"
#include "Verbs.h"

#include "platform/host/Descriptor.h"
#include "platform/host/Medium.h"
#include "platform/host/NodeState.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using TAMO::Framework::Descriptor;

namespace {

constexpr std::uint64_t sectorSize = 512;

/// A file in the words of an operator: the three that have names, else a path below the directory.
fs::path named(const NodeLayout& layout, const std::string& file, int partition)
{
    if (file == "pRBSdb")
        return layout.flash(partition) + "/pRBSdb";
    if (file == "commondb")
        return layout.common() + "/commondb";
    if (file == "backup")
        return layout.backup() + "/database/pRBSdb";
    return fs::path(layout.directory()) / file; // an absolute one stays as it is
}

/// The path with every link in its directories resolved; none, with a reason, when that leads out of the
/// node's directory.
std::optional<std::string> inside(const NodeLayout& layout, const fs::path& path, std::string& problem)
{
    std::error_code error;
    const fs::path directory = fs::canonical(path.parent_path(), error);
    if (error) {
        problem = "no directory " + path.parent_path().string();
        return std::nullopt;
    }
    const fs::path name = path.filename();
    const bool below = (directory.string() + '/').starts_with(layout.directory() + '/');
    if (below && !name.empty() && name != "." && name != "..")
        return (directory / name).string();
    problem = path.string() + " is not a file below " + layout.directory();
    return std::nullopt;
}

struct Damage {
    std::uint64_t size; ///< of the file
    std::optional<std::uint64_t> at;
    std::mt19937_64 chance;

    std::uint64_t place(std::uint64_t limit) { return at ? std::min(*at, limit - 1) : chance() % limit; }
};

bool write(int file, const std::string& bytes, std::uint64_t at)
{
    return ::pwrite(file, bytes.data(), bytes.size(), static_cast<off_t>(at)) == static_cast<ssize_t>(bytes.size());
}

bool truncate(int file, Damage& damage, std::string& told)
{
    const std::uint64_t length = damage.place(damage.size);
    told = "cut to " + std::to_string(length) + " bytes";
    return ::ftruncate(file, static_cast<off_t>(length)) == 0;
}

bool zero(int file, Damage& damage, std::string& told)
{
    const std::uint64_t start = damage.place(damage.size) / sectorSize * sectorSize;
    const std::uint64_t length = std::min(sectorSize, damage.size - start);
    told = std::to_string(length) + " zero bytes from byte " + std::to_string(start) + " on";
    return write(file, std::string(length, '\0'), start);
}

bool flip(int file, Damage& damage, std::string& told)
{
    const std::uint64_t at = damage.place(damage.size);
    const auto bit = static_cast<unsigned>(damage.chance() % 8);
    char byte = 0;
    told = "bit " + std::to_string(bit) + " of byte " + std::to_string(at) + " turned over";
    return ::pread(file, &byte, 1, static_cast<off_t>(at)) == 1 &&
           write(file, std::string(1, static_cast<char>(byte ^ (1 << bit))), at);
}

bool garbage(int file, Damage& damage, std::string& told)
{
    std::string bytes(std::min<std::uint64_t>(damage.size, 1 << 20), '\0');
    told = "garbage all over";
    for (std::uint64_t at = 0; at < damage.size; at += bytes.size()) {
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(damage.chance()); });
        bytes.resize(std::min<std::uint64_t>(bytes.size(), damage.size - at));
        if (!write(file, bytes, at))
            return false;
    }
    return true;
}

struct Way {
    const char* name;
    bool (*apply)(int file, Damage& damage, std::string& told);
};
constexpr Way ways[] = {{"truncate", truncate}, {"zero", zero}, {"flip", flip}, {"garbage", garbage}};

/// Damages `path`; false with a reason when nothing was done to it.
bool damageFile(const std::string& path, const Way& way, Damage damage, std::string& told)
{
    const Descriptor file(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat entry {};
    if (!file || ::fstat(file.get(), &entry) != 0) {
        told = "cannot open " + path + ": " + (errno == ELOOP ? "it is a link" : std::strerror(errno));
        return false;
    }
    damage.size = static_cast<std::uint64_t>(entry.st_size);
    if (!S_ISREG(entry.st_mode) || damage.size == 0) {
        told = path + (S_ISREG(entry.st_mode) ? " is empty already" : " is not a file");
        return false;
    }
    if (way.apply(file.get(), damage, told) && ::fsync(file.get()) == 0)
        return true;
    told = "cannot damage " + path + ": " + std::strerror(errno);
    return false;
}

} // namespace

int corrupt(const CorruptOptions& options)
{
    const auto way =
        std::find_if(std::begin(ways), std::end(ways), [&](const Way& w) { return w.name == options.how; });
    const auto layout = existing(options.directory);
    if (!layout)
        return exitFailure;
    NodeState state;
    std::string told;
    if (way == std::end(ways) || !readNodeState(layout->stateFile(), state, told))
        return fail(way == std::end(ways) ? "there is no damage \"" + options.how + "\"" : told);
    const auto path = inside(*layout, named(*layout, options.file, state.activePartition), told);
    if (!path)
        return fail(told);
    const std::uint64_t seed = options.seed ? *options.seed : std::random_device()();
    if (!damageFile(*path, *way, Damage{0, options.at, std::mt19937_64(seed)}, told))
        return fail(told);
    Medium(layout->medium()).settle(*path); // a power cut later does not heal it
    std::printf("%s: %s (seed %" PRIu64 ")\n", path->c_str(), told.c_str(), seed);
    return exitSuccess;
}
