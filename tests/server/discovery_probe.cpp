// Runs one half of the discovery exchange for the network-namespace test:
//   discovery_probe serve PORT [HOLD_UDP_PORT]  - session server with its responder
//   discovery_probe detect                      - prints each URL a detection finds
#include "srvurldetect.h"
#include "tarnsrv.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QUdpSocket>

static int Serve(const QStringList &args)
{
    // Optionally occupy a discovery port first, as another program might.
    QUdpSocket holder;
    if (args.size() > 3 && !holder.bind(QHostAddress::Any, quint16(args.at(3).toUInt())))
        return 2;
    TarnSrv server;
    if (server.Start(args.value(2).toInt()) != 0)
        return 1;
    QTextStream(stdout) << "listening" << Qt::endl;
    return QCoreApplication::exec();
}

static int Detect()
{
    SrvUrlDetect detector(nullptr);
    QTextStream out(stdout);
    const QList<QUrl> urls = detector.Detect();
    for (const QUrl &url : urls)
        out << url.toString() << '\n';
    return 0;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.value(1) == QLatin1String("serve"))
        return Serve(args);
    if (args.value(1) == QLatin1String("detect"))
        return Detect();
    QTextStream(stderr) << "usage: discovery_probe serve PORT [HOLD_UDP_PORT] | detect\n";
    return 2;
}
