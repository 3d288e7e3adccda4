#pragma once

namespace Tarn {

// How every Tarn program ends: the manager, the service host and the tool.
// Several names share a number on purpose: scripts and the service control
// manager see the number, the name says which failure the code means.
enum ExitCode : int {
    Ok = 0,
    Failed = 1,
    Usage = 2,
    // The manager: another one holds the machine's single-instance lock.
    Refused = Failed,
    // The manager without a window: the start that --start asked for failed.
    StartFailed = Failed,
    // The service host: its manager failed too often in a row (the
    // service-specific code the control manager reports).
    ManagerFailed = Failed,
    // The service framework: an installation, uninstallation or -exec run
    // that could not be done.
    ServiceActionFailed = -1,
    // The service framework: run as the service, but no control manager took it.
    ServiceNotStarted = -4,
};

} // namespace Tarn
