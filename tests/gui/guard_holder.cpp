// Holds the manager's single-instance guard from a process of its own:
//   guard_holder hold   - prints "held" or "refused"; when held, keeps the guard
//                         until standard input closes
//   guard_holder probe  - prints the outcome, keeps the guard briefly, exits
#include "instanceguard.h"

#include <QCoreApplication>
#include <QFile>
#include <QTextStream>
#include <QThread>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QString mode = QCoreApplication::arguments().value(1);
    InstanceGuard guard;
    const bool held = guard.Acquire();
    QTextStream(stdout) << (held ? "held" : "refused") << Qt::endl;
    if (!held)
        return 1;
    if (mode == QLatin1String("probe")) {
        QThread::msleep(2000);
        return 0;
    }
    QFile in;
    in.open(stdin, QIODevice::ReadOnly);
    in.readAll();
    return 0;
}
