#include "runmode.h"

#include "managercommandline.h"

namespace Tarn {

bool DisplayInEnvironment(const QProcessEnvironment &environment)
{
#if defined(Q_OS_UNIX) && !defined(Q_OS_DARWIN)
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        if (!environment.value(QLatin1String(name)).isEmpty())
            return true;
    return false;
#else
    Q_UNUSED(environment)
    return true;
#endif
}

RunModeChoice ChooseRunMode(const RunOptions &options, const QProcessEnvironment &environment, bool windowBuilt)
{
    if (options.headless || !DisplayInEnvironment(environment))
        return {RunMode::Headless, {}};
    if (windowBuilt)
        return {RunMode::Window, {}};
    return {RunMode::Headless,
            QStringLiteral("TarnSrv: this build has no window; it runs headless, as with --headless.")};
}

QString RunModeName(RunMode mode)
{
    return mode == RunMode::Window ? QStringLiteral("window") : QStringLiteral("headless");
}

} // namespace Tarn
