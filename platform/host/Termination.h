#pragma once

namespace TAMO::Framework {

class EventQueueHandler;

/// The queues that hear of an orderly end of the process.
namespace Termination {

/// From now on request() posts event 1006 to the front of `queue`; at once when the end was requested before.
void attach(EventQueueHandler& queue);
/// After it returns nothing is posted to `queue` any more.
void detach(EventQueueHandler& queue);

/// Posts event 1006 to every attached queue, in front of what waits, and remembers it for those attached later.
void request();
/// Forgets an earlier request.
void reset();

} // namespace Termination

} // namespace TAMO::Framework
