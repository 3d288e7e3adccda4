// Holds the manager's single-instance guard from a process of its own: prints
// "held" or "refused"; when held, keeps the guard until standard input closes.
#include "instanceguard.h"

#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    InstanceGuard guard;
    const bool held = guard.Acquire();
    QTextStream(stdout) << (held ? "held" : "refused") << Qt::endl;
    if (!held)
        return 1;
    QFile in;
    in.open(stdin, QIODevice::ReadOnly);
    in.readAll();
    return 0;
}
