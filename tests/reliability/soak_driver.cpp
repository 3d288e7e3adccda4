// Churn load for the soak run: N clients, each connecting, pinging once and
// disconnecting, over and over, for a given time. Loopback only.
//   soak_driver PORT SECONDS [CLIENTS]
// Prints one line of totals; exits 1 when a client failed.
#include <QCoreApplication>
#include <QRandomGenerator>
#include <QTimer>
#include <QUuid>
#include <QWebSocket>
#include <cstdio>

namespace {

struct Totals
{
    qint64 cycles = 0;
    qint64 failures = 0;
};

// One client's endless cycle; a cycle that does not finish in 10 s is a failure.
class ChurnClient : public QObject
{
public:
    ChurnClient(const QUrl &url, Totals &totals, QObject *parent)
        : QObject(parent), url(url), totals(totals)
    {
        deadline.setSingleShot(true);
        deadline.setInterval(10000);
        connect(&deadline, &QTimer::timeout, this, [this] { Finish(false); });
        QTimer::singleShot(int(QRandomGenerator::global()->bounded(1000)), this, &ChurnClient::Begin);
    }

    void Stop() { stopping = true; }

private:
    void Begin()
    {
        if (stopping)
            return;
        const QString origin = QStringList({QUuid::createUuid().toString(), QUuid::createUuid().toString(),
                                            QUuid::createUuid().toString(), QStringLiteral("soak")})
                                   .join(QLatin1Char(','));
        socket = new QWebSocket(origin, QWebSocketProtocol::Version13, this);
        connect(socket, &QWebSocket::sslErrors, socket, [s = socket] { s->ignoreSslErrors(); });
        connect(socket, &QWebSocket::connected, socket, [s = socket] { s->sendTextMessage(QStringLiteral("Server ping")); });
        connect(socket, &QWebSocket::textMessageReceived, this, [this](const QString &msg) {
            if (msg == QLatin1String("Server pong"))
                Finish(true);
        });
        deadline.start();
        socket->open(url);
    }

    void Finish(bool ok)
    {
        deadline.stop();
        ++(ok ? totals.cycles : totals.failures);
        socket->disconnect(this);
        socket->close();
        socket->deleteLater();
        socket = nullptr;
        QTimer::singleShot(int(QRandomGenerator::global()->bounded(200)), this, &ChurnClient::Begin);
    }

    QUrl url;
    Totals &totals;
    QWebSocket *socket = nullptr;
    QTimer deadline;
    bool stopping = false;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: soak_driver PORT SECONDS [CLIENTS]\n");
        return 2;
    }
    const QUrl url(QStringLiteral("wss://127.0.0.1:%1").arg(args.at(1)));
    const int seconds = args.at(2).toInt();
    const int count = args.value(3, QStringLiteral("500")).toInt();

    Totals totals;
    QList<ChurnClient *> clients;
    for (int i = 0; i < count; ++i)
        clients.append(new ChurnClient(url, totals, &app));

    QTimer::singleShot(seconds * 1000, &app, [&] {
        for (ChurnClient *client : qAsConst(clients))
            client->Stop();
        // Let the cycles in flight finish, then report.
        QTimer::singleShot(11000, &app, &QCoreApplication::quit);
    });
    QCoreApplication::exec();
    std::printf("cycles %lld failures %lld clients %d seconds %d\n", totals.cycles, totals.failures, count, seconds);
    return totals.failures == 0 ? 0 : 1;
}
