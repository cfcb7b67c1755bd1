#pragma once

#include "tools/client/ServiceClient.h"
#include "tools/tamo_load/LoadRun.h"

/// Measures what changes cost when they come in transactions and when somebody is told of them:
///
///     commit of 100 updates      the commit request of a transaction of 100 queued updates
///     told, 1 subscriber         from sending an update to the notification's arrival
///     told, N subscribers        the same until the last of them has it
///     requests                   updates and fetches in turn, nobody told
///     requests, 1 stuck          the same beside a subscriber that never reads, its queue full
std::vector<Measurement> runChanges(const LoadOptions& options, LoadTree& tree);

ServiceClient::Options connectionOptions(const LoadOptions& options);
