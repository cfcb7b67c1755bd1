// Keeps insert and import from making roots out of orphans.

#include "tools/tamoctl/ParentCheck.h"

#include "tools/client/Database.h"
#include "tools/tamoctl/Failure.h"
#include "tools/tamoctl/TextCoding.h"

void ParentCheck::require(const DBObject& object)
{
    if (object.parentDn.empty() || m_known.contains(object.parentDn))
        return;
    if (!m_database.exists(object.parentDn, object.parentMOInstance))
        throw Failure(ExitCode::notFound,
                      "the parent " + printable(object.parentDn) + " of " + printable(object.dn) + " does not exist");
    m_known.insert(object.parentDn);
}
