#pragma once

#include "platform/middleware/mw_api.h"

/// Log lines with a printf-style format that the compiler checks. Macros, so that the arguments of a
/// line below the level are not even evaluated.
#define LOG_ERROR(...)                                                                                                 \
    do {                                                                                                               \
        if (mw_log::enabled(mwLogError))                                                                               \
            mw_api_log_impl(mwLogModule, mwLogError, 1, __VA_ARGS__);                                                  \
    } while (false)
#define LOG_WARNING(...)                                                                                               \
    do {                                                                                                               \
        if (mw_log::enabled(mwLogWarning))                                                                             \
            mw_api_log_impl(mwLogModule, mwLogWarning, 1, __VA_ARGS__);                                                \
    } while (false)
#define LOG_INFO(...)                                                                                                  \
    do {                                                                                                               \
        if (mw_log::enabled(mwLogInfo))                                                                                \
            mw_api_log_impl(mwLogModule, mwLogInfo, 1, __VA_ARGS__);                                                   \
    } while (false)
#define LOG_DEBUG(...)                                                                                                 \
    do {                                                                                                               \
        if (mw_log::enabled(mwLogDebug))                                                                               \
            mw_api_log_impl(mwLogModule, mwLogDebug, 1, __VA_ARGS__);                                                  \
    } while (false)
