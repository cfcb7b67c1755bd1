#pragma once

/// An error line for each environment variable that cannot be used and each program that the service
/// runs and that is not there: told at start rather than by the first store that fails. The start
/// goes on.
void reportUnusableSurroundings();
