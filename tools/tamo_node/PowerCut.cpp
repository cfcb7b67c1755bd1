// A power cut on a simulated node: its files become a mixture of what they are and of what the medium
// holds for certain. Block by block, because storage keeps no order among blocks and may stop within one.
//
// A file with a journal beside it is a database that was written to in place. Others are copies: who makes
// one cuts the file to nothing first, and then no block of the old content is ever seen beside the new one.
#include "PowerCut.h"

#include "platform/host/Medium.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t blockSize = 4096;
constexpr std::size_t sectorSize = 512;

using Content = std::optional<std::string>; // none: the file is not there

Content read(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// The dice. One engine for all files: a node's files come in a fixed order.
class Chance {
public:
    explicit Chance(std::uint64_t seed) : m_engine(seed) {}
    std::size_t below(std::size_t limit) { return m_engine() % limit; }
    bool oneIn(std::size_t count) { return below(count) == 0; }

private:
    std::mt19937_64 m_engine;
};

struct Mixture {
    Content content;
    std::size_t changed = 0; ///< blocks that were on their way
    std::size_t dropped = 0;
    std::size_t torn = 0;
};

/// The blocks of `written` over `base`, as far as they arrived.
Mixture arrive(std::string base, const std::string& written, Chance& chance)
{
    Mixture result;
    const std::size_t lossy = 1 + chance.below(4); // how bad it is differs from file to file
    for (std::size_t at = 0; at < std::min(base.size(), written.size()); at += blockSize) {
        const std::size_t size = std::min({blockSize, base.size() - at, written.size() - at});
        if (base.compare(at, size, written, at, size) == 0)
            continue;
        ++result.changed;
        std::size_t arrived = size;
        if (chance.oneIn(lossy)) {
            const bool torn = chance.oneIn(3);
            arrived = torn ? std::min(size, sectorSize * (1 + chance.below(blockSize / sectorSize - 1))) : 0;
            ++(torn ? result.torn : result.dropped);
        }
        base.replace(at, arrived, written, at, arrived);
    }
    result.content = std::move(base);
    return result;
}

struct File {
    Content held;
    Content written;
    bool replaced = false; ///< another file took the name
    bool inPlace = false;  ///< blocks of it were overwritten; else it was cut to nothing and written anew
};

/// Overwritten blocks have their old content until the new one arrives. The length is written apart from them.
Mixture overwritten(const File& file, Chance& chance)
{
    std::string base = *file.held;
    if (base.size() == file.written->size() || !chance.oneIn(4))
        base.resize(file.written->size());
    return arrive(std::move(base), *file.written, chance);
}

/// Blocks given to a file have nothing in them until their content arrives; the file may have got but some.
Mixture writtenAnew(const File& file, Chance& chance)
{
    const std::size_t blocks = (file.written->size() + blockSize - 1) / blockSize;
    const std::size_t length = chance.oneIn(4) && blocks > 0 ? chance.below(blocks) * blockSize : file.written->size();
    return arrive(std::string(length, '\0'), *file.written, chance);
}

Mixture afterPowerCut(const File& file, Chance& chance)
{
    if (!file.written) // removed
        return {chance.oneIn(2) ? file.held : Content(), 0, 0, 0};
    if (file.held && file.inPlace && !file.replaced)
        return overwritten(file, chance);
    if (chance.oneIn(4)) // it had not even begun
        return {file.held, 0, 0, 0};
    return writtenAnew(file, chance);
}

std::string describe(const std::string& name, const File& file, const Mixture& after)
{
    const auto size = [](const Content& content) {
        return content ? std::to_string(content->size()) + " bytes" : std::string("absent");
    };
    return name + ": held " + size(file.held) + ", written " + size(file.written) + ", now " + size(after.content) +
           " (" + std::to_string(after.changed) + " blocks on their way, " + std::to_string(after.dropped) +
           " dropped, " + std::to_string(after.torn) + " torn)";
}

bool put(const std::string& path, const Content& content)
{
    if (!content)
        return std::remove(path.c_str()) == 0 || errno == ENOENT;
    std::error_code ignored;
    fs::create_directories(fs::path(path).parent_path(), ignored);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    return static_cast<bool>(file.write(content->data(), static_cast<std::streamsize>(content->size())).flush());
}

} // namespace

std::vector<std::string> loseUnsynchronised(const Medium& medium, std::uint64_t seed)
{
    Chance chance(seed);
    const auto index = medium.index();
    const auto present = medium.files();
    std::set<std::string> names(present.begin(), present.end());
    for (const auto& known : index)
        names.insert(known.first);

    std::vector<std::string> report;
    for (const auto& name : names) {
        const std::string path = medium.mirrored(name);
        const auto known = index.find(name);
        struct stat now {};
        const bool journal = names.contains(name + "-journal") || names.contains(name + "-wal");
        File file{known == index.end() ? Content() : read(medium.copy(name)), read(path), false, journal};
        if (file.held == file.written)
            continue;
        file.replaced = file.held && ::lstat(path.c_str(), &now) == 0 && now.st_ino != known->second.inode;
        const Mixture after = afterPowerCut(file, chance);
        report.push_back(put(path, after.content) ? describe(name, file, after)
                                                  : "cannot write " + path + ": " + std::strerror(errno));
    }
    medium.settleAll(); // what is there now is what the medium holds
    return report;
}
