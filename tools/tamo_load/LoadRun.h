#pragma once

#include "tools/tamo_load/Measurement.h"

#include <string>
#include <vector>

struct LoadOptions {
    std::string directory; ///< of the node's sockets
    int clients = 1;
    int objects = 10000; ///< inserted, in groups of groupSize below one object of our own
    int samples = 2000;  ///< fetches and updates made; listings a tenth of it
    double timeout = 60; ///< seconds, for each request
    bool keep = false;   ///< leave the objects there
};

/// Objects below one parent, and objects of the class that is listed.
inline constexpr int groupSize = 50;
inline constexpr int attributesPerObject = 10;

/// Loads the service and measures insert, fetch, update, children and class, in this order, each from
/// all clients at once. Throws a ClientError when a request fails or is refused; what was inserted is
/// removed again in any case that leaves a connection.
std::vector<Measurement> runLoad(const LoadOptions& options);
