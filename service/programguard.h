#ifndef PROGRAMGUARD_H
#define PROGRAMGUARD_H

#include <QString>

// Whether a user the service host does not trust can change the file or
// folder: a service runs what is there with its account's rights, so a
// program, a library or a configuration that others can replace hands them
// that account. Trusted: on Windows SYSTEM, Administrators, TrustedInstaller,
// the caller and the service's account; elsewhere root and the caller.
// Returns why the path is open to others, or an empty string. One file per
// platform (programguard_win.cpp, programguard_unix.cpp).
QString openToOthers(const QString &path, const QString &account);

#endif // PROGRAMGUARD_H
