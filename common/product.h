#pragma once

#include <QString>

namespace Tarn {

// The maker and the manager by the names users see: the settings store, the
// data folder, the WebSocket server and message boxes all go by these.
inline QString OrganizationName()
{
    return QStringLiteral("VARNOK Labs");
}
inline QString ManagerName()
{
    return QStringLiteral("VARNOK Manager");
}

} // namespace Tarn
