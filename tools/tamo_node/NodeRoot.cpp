// The files of a node's own root directory that the service names, for a workstation that has none of them.
#include "NodeRoot.h"

#include "platform/host/NodeState.h"

#include <filesystem>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// The area is exchanged as a whole: a copy that fails or is cut off leaves the old one. It is named by all
// words after the first because the service does not quote it.
constexpr const char* script = R"script(#!/bin/sh
# prepare_sw_fallback.sh ACTIVE AREA: makes AREA a copy of the active configuration area.
active=$1
shift
area=$*
fail() { echo "prepare_sw_fallback: $1" >&2; exit 1; }
[ -n "$active" ] && [ -n "$area" ] || fail "two directories are needed"
[ -d "$active/" ] || fail "no directory $active"
[ "$(readlink -f "$active")" != "$(readlink -f "$area")" ] || fail "$area is the active area itself"
rm -rf "$area.new" "$area.old"
cp -a "$active/." "$area.new" || { rm -rf "$area.new"; fail "cannot copy $active to $area"; }
if [ -e "$area" ]; then mv "$area" "$area.old" || fail "cannot replace $area"; fi
mv "$area.new" "$area" || fail "cannot replace $area"
rm -rf "$area.old"
sync
echo "prepare_sw_fallback: $area is a copy of $(readlink -f "$active")" >&2
)script";

} // namespace

bool makeNodeRoot(const std::string& root, const std::string& configurationArea, std::string& problem)
{
    const fs::path program = root + "/usr/bin/prepare_sw_fallback.sh";
    const fs::path area = root + "/mnt/activecfg";
    std::error_code error;
    fs::create_directories(program.parent_path(), error);
    if (!error)
        fs::create_directories(area.parent_path(), error);
    if (!error && (fs::remove(area, error), !error))
        fs::create_directory_symlink(configurationArea, area, error);
    if (error) {
        problem = "cannot make " + root + ": " + error.message();
        return false;
    }
    if (fs::exists(program, error))
        return true;
    if (!replaceFile(program, script, problem))
        return false;
    fs::permissions(program, fs::perms(0755), error);
    if (error)
        problem = "cannot make " + program.string() + " a program: " + error.message();
    return !error;
}
