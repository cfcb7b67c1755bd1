// Which folder may include which, read from the include lines themselves.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Include {
    std::string file; // from the root of the sources
    int line;
    std::string target;
    bool angled;
};

const fs::path root = TAMO_SOURCES;

/// The include that a line holds: `#include`, blanks where they may stand, and a name in "" or <>.
std::optional<Include> includeIn(const std::string& line)
{
    const auto skip = [&](std::size_t from) { return std::min(line.find_first_not_of(" \t", from), line.size()); };
    const std::string word = "include";
    std::size_t at = skip(0);
    if (at == line.size() || line[at] != '#')
        return std::nullopt;
    at = skip(at + 1);
    if (line.compare(at, word.size(), word) != 0)
        return std::nullopt;
    at = skip(at + word.size());
    if (at == line.size() || (line[at] != '"' && line[at] != '<'))
        return std::nullopt;
    const bool angled = line[at] == '<';
    const std::size_t end = line.find(angled ? '>' : '"', at + 1);
    return Include{{}, 0, line.substr(at + 1, end - at - 1), angled};
}

std::vector<Include> includesOf(const fs::path& file)
{
    std::vector<Include> found;
    std::ifstream lines(file);
    std::string text;
    for (int number = 1; std::getline(lines, text); ++number)
        if (auto include = includeIn(text)) {
            include->file = fs::relative(file, root).string();
            include->line = number;
            found.push_back(std::move(*include));
        }
    return found;
}

bool isSource(const fs::path& path) { return path.extension() == ".cpp" || path.extension() == ".h"; }

std::vector<Include> allIncludes(const std::string& folder)
{
    std::vector<Include> all;
    for (const auto& entry : fs::recursive_directory_iterator(root / folder))
        if (entry.is_regular_file() && isSource(entry.path()))
            std::ranges::move(includesOf(entry.path()), std::back_inserter(all));
    return all;
}

/// The row of the layering a file stands in: "platform", "tools", or its folder below src.
std::string layerOf(const std::string& file)
{
    const std::string first = file.substr(0, file.find('/'));
    if (first != "src")
        return first;
    const std::string rest = file.substr(4);
    return rest.find('/') == std::string::npos ? "main" : rest.substr(0, rest.find('/'));
}

/// The layer that an include line names; empty for one of the system or of the file's own folder.
std::string layerNamed(const Include& include)
{
    const std::size_t slash = include.target.find('/');
    if (include.angled || slash == std::string::npos)
        return {};
    return include.target.substr(0, slash);
}

const std::map<std::string, std::set<std::string>> allowed{
    {"values", {"values"}},
    {"platform", {"values", "platform"}},
    {"store", {"values", "platform", "store"}},
    {"persistence", {"values", "platform", "store", "persistence"}},
    {"mapping", {"values", "platform", "store", "mapping"}},
    {"change", {"values", "platform", "store", "change"}},
    {"requests", {"values", "platform", "store", "persistence", "mapping", "change", "requests"}},
    {"main", {"values", "platform", "store", "persistence", "mapping", "change", "requests"}},
    {"tools", {"values", "platform", "tools"}},
};

/// The one header beyond those: tamoctl reads mapping files with the service's own reader, which needs no
/// more than values and platform itself. A second reader of one format would accept other files.
bool isSharedReader(const Include& include)
{
    return include.file == "tools/tamoctl/SyncPairsVerb.cpp" && include.target == "persistence/AttributeSyncFile.h";
}

std::string describe(const Include& include)
{
    return include.file + ":" + std::to_string(include.line) + " includes " + include.target;
}

} // namespace

TEST(Layout, IncludesPointDownOnly)
{
    std::size_t checked = 0;
    for (const char* folder : {"src", "platform", "tools"})
        for (const Include& include : allIncludes(folder)) {
            const std::string from = layerOf(include.file);
            ASSERT_TRUE(allowed.contains(from)) << include.file << " stands in a folder without a place in the order";
            const std::string to = layerNamed(include);
            EXPECT_EQ(include.target.find(".."), std::string::npos) << describe(include);
            EXPECT_FALSE(include.angled && allowed.contains(include.target.substr(0, include.target.find('/'))))
                << describe(include) << ": ours stand in quotes";
            // Tools name their own folders ("client/...") or files beside them.
            if (to.empty() || (from == "tools" && fs::exists(root / "tools" / include.target)))
                continue;
            EXPECT_TRUE(allowed.at(from).contains(to) || isSharedReader(include))
                << describe(include) << ": " << from << " may not know " << to;
            ++checked;
        }
    EXPECT_GT(checked, 200U) << "the include lines were not found";
}

TEST(Layout, ServiceFoldersNameTheFolderInEveryInclude)
{
    for (const char* folder : {"src", "platform"})
        for (const Include& include : allIncludes(folder))
            EXPECT_TRUE(include.angled || include.target.find('/') != std::string::npos) << describe(include);
}

TEST(Layout, HeavyHeadersStayOutOfOurHeaders)
{
    constexpr const char* heavy[] = {"boost/", "msgpack", "Poco/", "nlohmann/", "CLI/", "spdlog/"};
    const std::string exception = "platform/host/MessagePack.h";
    int seen = 0;
    for (const char* folder : {"src", "platform", "tools"})
        for (const Include& include : allIncludes(folder)) {
            const bool isHeavy =
                std::ranges::any_of(heavy, [&](const char* library) { return include.target.starts_with(library); });
            seen += isHeavy ? 1 : 0;
            if (!include.file.ends_with(".h"))
                continue;
            EXPECT_FALSE(isHeavy && include.file != exception) << describe(include);
            EXPECT_NE(include.target, exception) << describe(include) << ": for .cpp files only";
        }
    EXPECT_GT(seen, 10) << "the include lines were not found";
}
