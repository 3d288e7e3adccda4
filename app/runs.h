#pragma once

struct RunOptions;

// The manager's runs. Each makes its own application object (a window needs
// QApplication, a headless run must not load the GUI) and returns the exit code.

// Names the application object just made.
void NameApplication();

// No widget, no platform plugin: the log on stderr as well.
int RunHeadless(int argc, char *argv[], const RunOptions &options);

#ifdef TARN_GUI
// The window leaves the console it was started from, if attached to one.
int RunWindow(int argc, char *argv[], const RunOptions &options, bool consoleAttached);
#endif
