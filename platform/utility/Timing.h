#pragma once

#include <sys/time.h>

/// A stopwatch that the process exports under these plain names, for tools that attach to it. The
/// service itself does not use it. Not for several threads at once.
extern "C" {

extern timeval gT1;         ///< time of day of the last Start()
extern timeval gT2;         ///< of the last Stop()
extern double gElapsedTime; ///< milliseconds from gT1 to gT2; 5.0 before the first Stop()

void Start();
void Stop();
}
