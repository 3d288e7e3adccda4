#include "scalableeventloop.h"

#include <QCoreApplication>

#ifdef Q_OS_LINUX
#include "epolldispatcher.h"
#endif

void Tarn::PreferScalableEventLoop()
{
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB"))
        qputenv("QT_NO_GLIB", "1");
}

void Tarn::UseScalableEventLoop()
{
#ifdef Q_OS_LINUX
    if (qEnvironmentVariable("TARN_EPOLL") != QLatin1String("0"))
        QCoreApplication::setEventDispatcher(new EpollEventDispatcher);
#endif
}
