#pragma once

#include <QProcessEnvironment>
#include <QString>

struct RunOptions;

namespace Tarn {

// Whether a window has somewhere to show: an X11 or Wayland display named in
// the environment, or a Qt platform asked for by name (offscreen included).
// Always where Qt's platforms need no named display (Windows, macOS).
bool DisplayInEnvironment(const QProcessEnvironment &environment);

enum class RunMode { Window, Headless };

struct RunModeChoice
{
    RunMode mode = RunMode::Headless;
    // Said on stderr before the run: why the window the user expects is not there.
    QString notice;
};

// How the manager runs, the one place that decides it: headless when the
// command line asks for it, when there is no display, or when this build has
// no window; else with its window.
RunModeChoice ChooseRunMode(const RunOptions &options, const QProcessEnvironment &environment,
                            bool windowBuilt);

// "window" or "headless", as TarnSrv --run-mode prints it.
QString RunModeName(RunMode mode);

} // namespace Tarn
