// Stand-in for the manager TarnSrv in the service host's check under Wine,
// for what the real manager cannot show: a child that hangs. It notes in
// TarnSrv.log beside it that it started (with its process id and arguments)
// and whether it was asked to close. With a file TarnSrv.ignore-close beside
// it, it notes the request and keeps running, like a child that hangs.
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
        const MSG *msg = static_cast<const MSG *>(message);
        if (msg->message != WM_CLOSE)
            return false;
        if (ignoreClose) {
            note(QStringLiteral("close ignored"));
        } else {
            note(QStringLiteral("close"));
            QCoreApplication::quit();
        }
        return true;
    }

    bool ignoreClose = false;
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CloseFilter filter;
    filter.ignoreClose = QFile::exists(QCoreApplication::applicationDirPath() + QLatin1String("/TarnSrv.ignore-close"));
    app.installNativeEventFilter(&filter);
    note(QStringLiteral("started %1 [%2]")
             .arg(GetCurrentProcessId())
             .arg(QCoreApplication::arguments().mid(1).join(QLatin1Char(' '))));
    const int status = app.exec();
    note(QStringLiteral("exit %1").arg(status));
    return status;
}
