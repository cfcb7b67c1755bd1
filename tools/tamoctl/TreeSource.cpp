// The three kinds of trees that can be compared, and how a name on the command line tells them apart.

#include "tools/tamoctl/TreeSource.h"

#include "tools/tamoctl/Context.h"
#include "tools/tamoctl/DatabaseTree.h"
#include "tools/tamoctl/DnArgument.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/InputFile.h"
#include "tools/tamoctl/ObjectJson.h"
#include "tools/tamoctl/TreeWalk.h"

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

class LiveTree : public TreeSource {
public:
    explicit LiveTree(Context& context) : m_context(context) { context.database(); }
    LiveTree(Context& context, std::string directory)
        : m_own(std::make_unique<Context>(withDirectory(context.options(), std::move(directory)))), m_context(*m_own)
    {
        m_own->database();
    }

    void visit(const std::vector<std::string>& roots, const std::function<void(const SourceObject&)>& visitor) override
    {
        for (const std::string& root : roots)
            (void)walkTree(m_context.database(), root, [&visitor](const TreeNode& node) {
                visitor({node.object, node.dn, 0});
            });
    }
    std::unique_ptr<DBObject> again(const std::string& dn, std::int32_t instance, std::int64_t) override
    {
        return m_context.database().fetch(dn, instance);
    }
    bool knowsRoots() const override { return false; }

private:
    static GlobalOptions withDirectory(GlobalOptions options, std::string directory)
    {
        options.directory = std::move(directory);
        return options;
    }
    std::unique_ptr<Context> m_own;
    Context& m_context;
};

/// A place is the offset of the object's line.
class ExportedTree : public TreeSource {
public:
    explicit ExportedTree(std::string path) : m_path(std::move(path)), m_lines(m_path, std::ios::binary) {}

    void visit(const std::vector<std::string>&, const std::function<void(const SourceObject&)>& visitor) override
    {
        InputFile file(m_path);
        for (std::string line; file.nextLine(line);) {
            const auto offset = static_cast<std::int64_t>(file.bytesRead() - line.size() - 1);
            const DBObject object = read(line, file.lineNumber());
            visitor({object, wholeDnOf(object), offset});
        }
    }
    std::unique_ptr<DBObject> again(const std::string&, std::int32_t, std::int64_t place) override
    {
        m_lines.clear(); // the last line may have ended with the file
        std::string line;
        if (!m_lines.seekg(place) || !std::getline(m_lines, line))
            return nullptr;
        return std::make_unique<DBObject>(objectFromJson(line));
    }
    bool isWhole() const override { return false; }
    bool knowsParked() const override { return false; }

private:
    DBObject read(const std::string& line, std::uint64_t number) const
    {
        try {
            return objectFromJson(line);
        } catch (const Failure& failure) {
            throw Failure(failure.code, m_path + " line " + std::to_string(number) + ": " + failure.what());
        }
    }
    std::string m_path;
    std::ifstream m_lines;
};

std::unique_ptr<TreeSource> openDirectory(Context& context, const std::string& directory)
{
    constexpr const char* socket = "db.sock";
    for (const fs::path& sockets : {fs::path(directory), fs::path(directory) / "run"})
        if (fs::exists(sockets / socket))
            return std::make_unique<LiveTree>(context, sockets.string());
    throw Failure(ExitCode::noService,
                  directory + " has no socket of a service: neither " + socket + " nor run/" + socket);
}

std::unique_ptr<TreeSource> openFile(const std::string& path)
{
    constexpr std::string_view databaseHead("SQLite format 3\0", 16);
    std::string head(databaseHead.size(), '\0');
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Failure(ExitCode::usage, path + " cannot be read");
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(file.gcount()));
    if (head == databaseHead)
        return std::make_unique<DatabaseTree>(path);
    const std::size_t first = head.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && head[first] == '{')
        return std::make_unique<ExportedTree>(path);
    throw Failure(ExitCode::usage, path + (head.empty() ? " is empty" : " is neither an export nor a database file"));
}

} // namespace

std::unique_ptr<TreeSource> openTree(Context& context, const std::string& name)
{
    if (name == "live")
        return std::make_unique<LiveTree>(context);
    std::error_code error;
    const fs::file_status status = fs::status(name, error);
    if (fs::is_directory(status))
        return openDirectory(context, name);
    if (fs::is_socket(status))
        return openDirectory(context, fs::path(name).parent_path().string());
    if (fs::is_regular_file(status))
        return openFile(name);
    throw Failure(ExitCode::usage, name + ": " + (error ? error.message() : "no file, directory or socket"));
}
