// The place of the BO-MO mapping in start-up; mapping files are not read by this version.

#include "mapping/BOMOMapper.h"

#include "platform/middleware/Log.h"

bool BOMOMapper::mapBOMO(const std::string& path)
{
    LOG_DEBUG("BOMOMapper::%s: mapping files are not read by this version (path '%s')", __func__, path.c_str());
    return false;
}
