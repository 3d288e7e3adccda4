#pragma once

#include <QString>

namespace Tarn {

// The first folder a systemd unit's variable (STATE_DIRECTORY, LOGS_DIRECTORY)
// names; empty outside such a unit.
QString UnitDirectory(const char *variable);
// The manager's per-user data folder, named as its settings store is.
QString UserDataFolder();

} // namespace Tarn
