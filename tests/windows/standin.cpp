// Stand-in for the manager TarnSrv in the service host's check under Wine, so
// that the host is checked apart from the manager: it notes in TarnSrv.log
// beside it that it started (with its process id and arguments) and that it
// was asked to close.
//
// On Windows QProcess::terminate() posts WM_CLOSE to the process's top-level
// windows and to its main thread. This program has no top-level window, so
// the thread message is what arrives; the event dispatcher hands it to native
// event filters before dispatching.

#include <QAbstractNativeEventFilter>
#include <QCoreApplication>
#include <QFile>
#include <QStringList>

#include <windows.h>

namespace {

void note(const QString &line)
{
    QFile log(QCoreApplication::applicationDirPath() + QLatin1String("/TarnSrv.log"));
    if (log.open(QIODevice::WriteOnly | QIODevice::Append))
        log.write((line + QLatin1Char('\n')).toUtf8());
}

class CloseFilter : public QAbstractNativeEventFilter
{
public:
    bool nativeEventFilter(const QByteArray &, void *message, long *) override
    {
        if (static_cast<const MSG *>(message)->message != WM_CLOSE)
            return false;
        note(QStringLiteral("close"));
        QCoreApplication::quit();
        return true;
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CloseFilter filter;
    app.installNativeEventFilter(&filter);
    note(QStringLiteral("started %1 [%2]")
             .arg(GetCurrentProcessId())
             .arg(QCoreApplication::arguments().mid(1).join(QLatin1Char(' '))));
    return app.exec();
}
