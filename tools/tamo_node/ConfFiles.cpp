// Installs the mapping files and templates when a node is switched on. This is done before the node has a
// /tmp of its own, so that they may come from anywhere on the machine.
#include "ConfFiles.h"

#include "NodeLayout.h"

#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* attributeMapping = "deprecated_attribute_mapping.xml";

bool isThere(const fs::path& path)
{
    std::error_code error;
    return fs::symlink_status(path, error).type() != fs::file_type::not_found;
}

/// Under another name until it is complete: an `up` that is killed must not leave half a file for good.
bool copyWhole(const fs::path& from, const fs::path& to, std::error_code& error)
{
    const fs::path passing = to.string() + "." + std::to_string(::getpid());
    constexpr auto ownerMayEdit = fs::perms::owner_read | fs::perms::owner_write;
    if (fs::copy_file(from, passing, fs::copy_options::overwrite_existing, error))
        fs::permissions(passing, ownerMayEdit, fs::perm_options::add, error);
    if (!error)
        fs::rename(passing, to, error);
    std::error_code ignored;
    if (error)
        fs::remove(passing, ignored);
    return !error;
}

} // namespace

std::string ConfFiles::besideProgram(const std::string& program)
{
    return (fs::path(program).parent_path().parent_path() / "conf").string();
}

bool ConfFiles::install(const NodeLayout& layout, const std::string& source, bool mustExist, std::string& problem)
{
    std::error_code error;
    fs::directory_iterator entry(source, error);
    if (error) {
        problem = "cannot read " + source + ": " + error.message();
        return !mustExist;
    }
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const fs::path& from = entry->path();
        const fs::path to = layout.conf() / from.filename();
        std::error_code unreadable;
        if (from.extension() != ".xml" || !entry->is_regular_file(unreadable) || isThere(to))
            continue;
        if (!copyWhole(from, to, error)) {
            problem = "cannot copy " + from.string() + " to " + to.string() + ": " + error.message();
            return false;
        }
    }
    if (error)
        problem = "cannot read " + source + ": " + error.message();
    return !error;
}

std::string ConfFiles::missing(const NodeLayout& layout, const std::string& source)
{
    if (isThere(fs::path(layout.conf()) / attributeMapping))
        return {};
    return "warning: neither " + layout.conf() + " nor " + source + " has " + attributeMapping +
           ": every start that finds a permanent configuration will order a software fallback";
}
