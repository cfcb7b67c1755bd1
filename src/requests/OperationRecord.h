#pragma once

#include "platform/middleware/Log.h"

#include <cstdint>
#include <string>

/// What a write request was about, for the one line that is logged when it fails.
struct OperationRecord {
    std::string operation;
    std::string dn;
    std::int32_t MOInstance = 0;
    std::int32_t transId = 0;
    std::string text;

    void about(const std::string& ofDn, std::int32_t instance)
    {
        dn = ofDn;
        MOInstance = instance;
    }

    void logFailure() const
    {
        LOG_ERROR("Database operation failed: %s, %s, %d, %d, %s", operation.c_str(), dn.c_str(), MOInstance, transId,
                  text.c_str());
    }
};
