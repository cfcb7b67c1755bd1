#pragma once

#include <array>

/// The services of the node by number: the service's log and the clients that act as one of them use
/// the same names.
inline constexpr std::array clientNames{"Database",
                                        "Startup",
                                        "ConfigurationManagement",
                                        "FaultManagement",
                                        "PerformanceManagement",
                                        "Middleware",
                                        "BoamInterface",
                                        "SoftwareManagement",
                                        "AutointegrationManagement",
                                        "Reset",
                                        "VEX",
                                        "WebUI",
                                        "WebUiProxy",
                                        "SecMain",
                                        "LocalAgent",
                                        "LocalAgentDBPlugin",
                                        "Transport"};
