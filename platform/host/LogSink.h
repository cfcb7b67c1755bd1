#pragma once

#include <functional>
#include <string>

/// The log's other end on a workstation: what tests and the tools may listen to or set.

namespace mw_log {

/// Receives the level (MwLogLevel) and the text of a line as it is written: control characters and
/// bytes that are not UTF-8 already escaped, no time, no prefix.
using Sink = std::function<void(unsigned level, const std::string& text)>;

/// From now on `sink` gets every enabled line too; an empty function ends it. When setSink returns,
/// no call of the earlier sink is under way, so what that one captured may go. Calls come one at a
/// time, on the thread that logs; a sink may log.
void setSink(Sink sink);

/// Reads TAMO_LOG_LEVEL and TAMO_LOG_FILE again. They are first read when the process starts.
void configure();

/// `text` as a log line shows it: control characters, line separators and bytes that are not UTF-8
/// become \n, \r, \t or \xNN. A backslash stays a backslash.
std::string oneLine(const std::string& text);

} // namespace mw_log
