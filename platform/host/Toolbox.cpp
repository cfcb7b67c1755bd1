// Text and file helpers of the utility library as a workstation gives them.
#include "platform/utility/Toolbox.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <grp.h>
#include <map>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::optional<gid_t> lookUpGroup(const std::string& name)
{
    std::vector<char> buffer(4096);
    group entry{};
    group* found = nullptr;
    while (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == ERANGE)
        buffer.resize(buffer.size() * 2); // a group with many members
    return found ? std::optional(found->gr_gid) : std::nullopt;
}

/// Looked up once per name and process, also when there is no such group: every commit asks, and a
/// look-up reads the whole group file or asks a directory server.
std::optional<gid_t> groupOf(const std::string& name)
{
    static std::mutex mutex;
    static std::map<std::string, std::optional<gid_t>> known;
    const std::lock_guard lock(mutex);
    const auto [entry, isNew] = known.try_emplace(name);
    if (isNew)
        entry->second = lookUpGroup(name);
    return entry->second;
}

template <class Number>
bool convert(const std::string& text, Number& value, bool wholeText)
{
    Number read{};
    const char* const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, read);
    if (error != std::errc() || (wholeText && behind != end))
        return false;
    value = read;
    return true;
}

} // namespace

bool Toolbox::convertStringToInt(const std::string& text, std::int32_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToUInt(const std::string& text, std::uint32_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToShort(const std::string& text, std::int16_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToUShort(const std::string& text, std::uint16_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToLongLong(const std::string& text, std::int64_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToULongLong(const std::string& text, std::uint64_t& value, bool wholeText)
{
    return convert(text, value, wholeText);
}

bool Toolbox::convertStringToDouble(const std::string& text, double& value)
{
    double read = 0;
    if (!convert(text, read, true) || !std::isfinite(read))
        return false;
    value = read;
    return true;
}

bool Toolbox::readStringToList(const std::string& text, char separator, std::vector<std::string>& list, bool skipEmpty)
{
    list.clear();
    for (auto from = text.begin();;) {
        const auto to = std::find(from, text.end(), separator);
        if (from != to || !skipEmpty)
            list.emplace_back(from, to);
        if (to == text.end())
            return !text.empty();
        from = to + 1;
    }
}

bool Toolbox::changeFileAccess(const std::string& path, unsigned mode, const std::string& group)
{
    struct stat file {};
    if (::stat(path.c_str(), &file) != 0)
        return false;
    const auto wanted = groupOf(group);
    // The group first, so that the old group never gets the new mode's rights.
    const bool groupSet = wanted && (file.st_gid == *wanted || ::chown(path.c_str(), ~uid_t{0}, *wanted) == 0);
    const bool modeSet = (file.st_mode & 07777U) == mode || ::chmod(path.c_str(), mode) == 0;
    return groupSet && modeSet;
}
