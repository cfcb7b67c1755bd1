#pragma once

#include "tools/tamo_load/Measurement.h"

/// Frames of a size like those of a fetch, to and fro over a plain local socket between this process
/// and another: what no request can be faster than. Throws std::system_error.
Measurement measureRoundTrip(int rounds);
