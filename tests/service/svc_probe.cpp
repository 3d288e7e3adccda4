// A service for the framework tests. Its identity and behaviour come from the
// environment; it notes every operation, and the thread it ran on, in a file.

#include "qtservice.h"

#include <QFile>
#include <QThread>
#include <QTimer>

namespace {

QString env(const char *name, const char *fallback = "")
{
    return qEnvironmentVariable(name, QString::fromLatin1(fallback));
}

void delay(const char *name)
{
    QThread::msleep(qEnvironmentVariableIntValue(name));
}

} // namespace

class Probe : public QtService<QCoreApplication>
{
public:
    Probe(int argc, char **argv)
        : QtService<QCoreApplication>(argc, argv, env("SVC_PROBE_NAME", "tst_probe"))
    {
        setServiceDescription(env("SVC_PROBE_DESCRIPTION"));
        setServiceFlags(ServiceFlags(qEnvironmentVariableIntValue("SVC_PROBE_FLAGS")));
        if (qEnvironmentVariableIsSet("SVC_PROBE_AUTO"))
            setStartupType(QtServiceController::AutoStartup);
    }

protected:
    void start() override
    {
        note(QLatin1String("start ") + QCoreApplication::arguments().join(QLatin1Char('|')));
        delay("SVC_PROBE_START_DELAY");
        // Slow clean-up after the loop has ended: the stop request itself is
        // answered at once, the stopped state comes late.
        QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit,
                         [] { delay("SVC_PROBE_STOP_DELAY"); });
        // Run with -e there is no other way in than the start.
        if (qEnvironmentVariableIsSet("SVC_PROBE_ERROR_AT_START"))
            QTimer::singleShot(0, QCoreApplication::instance(), [this] { failWith("SVC_PROBE_ERROR_AT_START"); });
    }

    void stop() override { note(QStringLiteral("stop")); }

    void pause() override { note(QStringLiteral("pause")); }
    void resume() override { note(QStringLiteral("resume")); }

    void processCommand(int code) override
    {
        note(QStringLiteral("enter %1").arg(code));
        delay("SVC_PROBE_COMMAND_DELAY");
        note(QStringLiteral("leave %1").arg(code));
        if (code == 99)
            QCoreApplication::quit();
        if (code == 98)
            failWith("SVC_PROBE_ERROR");
    }

private:
    void failWith(const char *codeVariable) { stopWithError(qEnvironmentVariableIntValue(codeVariable)); }

    static void note(const QString &text)
    {
        const bool onMain = QThread::currentThread() == QCoreApplication::instance()->thread();
        QFile log(env("SVC_PROBE_LOG"));
        if (log.open(QIODevice::WriteOnly | QIODevice::Append))
            log.write((text + (onMain ? QLatin1String(" main\n") : QLatin1String(" other\n"))).toUtf8());
    }
};

int main(int argc, char **argv)
{
    Probe service(argc, argv);
    return service.exec();
}
