#pragma once

#include "tools/tamo_load/LoadTree.h"
#include "tools/tamo_load/Measurement.h"

#include <string>
#include <vector>

struct LoadOptions {
    std::string directory; ///< of the node's sockets
    int clients = 1;
    int objects = 10000; ///< inserted, in groups of groupSize below one object of our own
    int samples = 2000;  ///< fetches and updates made; listings and transactions a tenth of it
    int subscribers = 0; ///< of the fan-out; 0 leaves transactions and notifications out
    double timeout = 60; ///< seconds, for each request
    bool keep = false;   ///< leave the objects there
};

/// Loads the service and measures insert, fetch, update, children and class, in this order, each from
/// all clients at once; then what runChanges() adds. Throws a ClientError when a request fails or is refused; what was
/// inserted is removed again in any case that leaves a connection.
std::vector<Measurement> runLoad(const LoadOptions& options);
