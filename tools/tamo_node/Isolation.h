#pragma once

#include <string>
#include <vector>

/// Gives this process and what it starts a /tmp (the directory `privateTmp`) and a /dev/shm of its own,
/// so that fixed names in them do not meet those of another node on the machine. The directories
/// `keep` stay visible where they are. Call it before there is a second thread.
///
/// Returns "private", or "shared" and why where the machine does not permit it.
std::string enterPrivateNamespace(const std::string& privateTmp, const std::vector<std::string>& keep);
