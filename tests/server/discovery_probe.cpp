// One side of the network-namespace tests:
//   discovery_probe serve PORT [HOLD_UDP_PORT]  - session server with its responder,
//                                                 printing its log lines
//   discovery_probe detect                      - prints each URL a detection finds
//   discovery_probe hold URL N                  - N connected clients; prints "lost"
//                                                 for each that loses its server
//   discovery_probe flood PORT N BYTES          - N spoofed replies, each with another
//                                                 URL of about BYTES, to 127.0.0.1:PORT
// TARN_TEST_HEARTBEAT_MS shortens the heartbeat of both sides.
#include "srvurldetect.h"
#include "tarnclt.h"
#include "tarnsrv.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QThread>
#include <QTimer>
#include <QUdpSocket>
#include <memory>
#include <vector>

static int HeartBeatMs()
{
    const int ms = qEnvironmentVariableIntValue("TARN_TEST_HEARTBEAT_MS");
    return ms > 0 ? ms : Tarn::HeartBeatIntervalMs;
}

static int Serve(const QStringList &args)
{
    // Optionally occupy a discovery port first, as another program might.
    QUdpSocket holder;
    if (args.size() > 3 && !holder.bind(QHostAddress::Any, quint16(args.at(3).toUInt())))
        return 2;
    TarnSrv server;
    server.SetHeartBeatInterval(HeartBeatMs());
    QObject::connect(&server, &TarnSrv::Log, [](const QString &text) {
        QTextStream(stdout) << text << Qt::endl;
    });
    if (server.Start(args.value(2).toInt()) != 0)
        return 1;
    QTextStream(stdout) << "listening" << Qt::endl;
    return QCoreApplication::exec();
}

static int Hold(const QStringList &args)
{
    const QUrl url(args.value(2));
    const int count = args.value(3).toInt();
    std::vector<std::unique_ptr<TarnClt>> clients;
    std::vector<ClientRecord> records(size_t(qMax(count, 0)));
    int lost = 0;
    QTextStream out(stdout);
    for (ClientRecord &rec : records) {
        rec.guestName = QStringLiteral("held");
        clients.push_back(std::make_unique<TarnClt>());
        clients.back()->SetHeartBeatInterval(HeartBeatMs());
        QObject::connect(clients.back().get(), &TarnClt::UnexpectedDisconnection, [&] {
            out << "lost" << Qt::endl;
            if (++lost == count)
                QCoreApplication::quit();
        });
        if (!clients.back()->Open(url, &rec))
            return 1;
    }
    out << "connected" << Qt::endl;
    // Give up when the losses are not all seen within forty heartbeats.
    QTimer::singleShot(40 * HeartBeatMs(), [] { QCoreApplication::exit(1); });
    return QCoreApplication::exec();
}

static int Flood(const QStringList &args)
{
    const auto port = quint16(args.value(2).toUInt());
    const int count = args.value(3).toInt();
    const QString padding(qMax(args.value(4).toInt(), 0), QLatin1Char('x'));
    QUdpSocket socket;
    for (int i = 0; i < count; ++i) {
        // Each URL differs, so a receiver that keeps replies cannot fold them into one.
        const QUrl url(QStringLiteral("wss://10.0.0.1:443/%1/%2").arg(i).arg(padding));
        // Loopback only: the flood stays inside the test's own namespace.
        socket.writeDatagram(SrvUrlDetect::ReplyDatagram(url), QHostAddress::LocalHost, port);
        // Paced, so that the receiver's buffer holds them rather than the kernel dropping them.
        if (i % 8 == 7)
            QThread::msleep(2);
    }
    return 0;
}

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.value(1) == QLatin1String("serve"))
        return Serve(args);
    if (args.value(1) == QLatin1String("detect")) {
        SrvUrlDetect detector(nullptr);
        for (const QUrl &url : detector.Detect())
            QTextStream(stdout) << url.toString() << '\n';
        return 0;
    }
    if (args.value(1) == QLatin1String("hold"))
        return Hold(args);
    if (args.value(1) == QLatin1String("flood"))
        return Flood(args);
    QTextStream(stderr) << "usage: discovery_probe serve PORT [HOLD_UDP_PORT] | detect | hold URL N"
                           " | flood PORT N BYTES\n";
    return 2;
}
