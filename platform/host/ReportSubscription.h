#pragma once

/// What the message library asks of the MO-access library.
namespace ReportSubscription {

/// Whether the reports of the management agent are wanted: somebody in this process has subscribed to
/// those of every object, for the database. Any thread.
bool stands();

} // namespace ReportSubscription
