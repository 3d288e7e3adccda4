#include "datafolders.h"

#include "product.h"

#include <QStandardPaths>

namespace Tarn {

QString UnitDirectory(const char *variable)
{
    // A list of folders is separated by colons.
    return qEnvironmentVariable(variable).section(QLatin1Char(':'), 0, 0);
}

QString UserDataFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
           + QLatin1Char('/') + OrganizationName() + QLatin1Char('/') + ManagerName();
}

} // namespace Tarn
