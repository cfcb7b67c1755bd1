// Names and DNs from outside, and the DN an object is shown under.

#include "tools/tamoctl/DnArgument.h"

#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/TextCoding.h"
#include "values/DistinguishedName.h"

namespace {

std::string withoutQuotes(std::string dn)
{
    std::erase(dn, '"');
    return dn;
}

} // namespace

std::string checkedDn(const std::string& dn)
{
    const auto refuseDn = [&dn](const char* why) {
        throw Failure(ExitCode::usage, "\"" + printable(dn) + "\" is not a DN: " + why);
    };
    const auto pairs = splitPairs(dn);
    if (pairs.empty())
        refuseDn("it is empty");
    if (dn.find('\0') != std::string::npos)
        refuseDn("it holds a NUL");
    std::string whole;
    for (const std::string& pair : pairs) {
        if (pair.empty())
            refuseDn("a pair is empty");
        whole = joinDn(whole, quotedPair(pair));
    }
    if (withoutQuotes(whole) != withoutQuotes(dn))
        refuseDn("it has a comma too many");
    return whole;
}

const std::string& checkedName(const std::string& name)
{
    if (name.empty())
        throw Failure(ExitCode::usage, "an attribute name is empty");
    if (name.find('\0') != std::string::npos)
        throw Failure(ExitCode::usage, "the attribute name " + printable(name) + " holds a NUL");
    return name;
}

std::string wholeDnOf(const DBObject& object) { return joinDn(object.parentDn, quotedPair(object.dn)); }

std::string shownDn(const std::string& asked, const DBObject& object)
{
    std::string unquoted;
    for (const std::string& pair : splitPairs(asked))
        unquoted = joinDn(unquoted, pair);
    return unquoted == object.fullDn() ? asked : wholeDnOf(object);
}
