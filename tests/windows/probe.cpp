// A service built from the framework for the Windows check: TarnSvc inherits
// a processCommand that does nothing, so this one records every control it
// handles in TarnProbe.log beside it, and reports each command to the event
// log as well. Run as "TarnProbe install <program> <account> <password>", it
// installs another program through QtServiceController::install instead.

#include "qtservice.h"

#include <QFile>

class WinProbe : public QtService<QCoreApplication>
{
public:
    WinProbe(int argc, char **argv)
        : QtService<QCoreApplication>(argc, argv, QStringLiteral("TarnProbe"))
    {
        setServiceDescription(QStringLiteral("Tarn Windows check probe"));
        setServiceFlags(CanBeSuspended);
    }

protected:
    void start() override
    {
        note(QLatin1String("start ") + QCoreApplication::arguments().join(QLatin1Char('|')));
    }
    void stop() override { note(QStringLiteral("stop")); }
    void pause() override { note(QStringLiteral("pause")); }
    void resume() override { note(QStringLiteral("resume")); }
    void processCommand(int code) override
    {
        note(QStringLiteral("command %1").arg(code));
        logMessage(QStringLiteral("TarnProbe command %1").arg(code), Error, 7, 3);
    }

private:
    static void note(const QString &text)
    {
        QFile log(QCoreApplication::applicationDirPath() + QLatin1String("/TarnProbe.log"));
        if (log.open(QIODevice::WriteOnly | QIODevice::Append))
            log.write((text + QLatin1Char('\n')).toUtf8());
    }
};

int main(int argc, char **argv)
{
    if (argc == 5 && qstrcmp(argv[1], "install") == 0) {
        QCoreApplication app(argc, argv);
        const QStringList args = QCoreApplication::arguments();
        return QtServiceController::install(args.at(2), args.at(3), args.at(4)) ? 0 : 1;
    }
    WinProbe service(argc, argv);
    return service.exec();
}
