#include "../reliability/attacksupport.h"
#include "tlscontext.h"
#include "tlsidentity.h"
#include "tlslistener.h"
#include "tlsserversocket.h"
#include "unsentpool.h"

#include <QScopeGuard>
#include <QTcpServer>
#include <QWebSocket>
#include <QWebSocketServer>

#include <openssl/ssl.h>

#include <vector>

// The connection's send path: the active-clients reply goes out as the very
// bytes QWebSocket would have written, in order with its own frames, and a
// full pool makes room by dropping whoever has held the most for the longest,
// never a peer that reads.
using namespace attacks;

namespace {

// Hands accepted descriptors over untouched, as the TLS listener's acceptor does.
class DescriptorServer : public QTcpServer
{
public:
    QList<qintptr> accepted;

protected:
    void incomingConnection(qintptr descriptor) override { accepted.append(descriptor); }
};

// A reply of size bytes that no other buffer shares, in UTF-8 as TarnSrv sends it.
QByteArray Reply(int size, char fill)
{
    return QByteArray(size, fill);
}

// What follows the upgrade reply, up to and including end.
QByteArray ReadThrough(QIODevice &socket, const QByteArray &end)
{
    QByteArray bytes;
    QElapsedTimer elapsed;
    elapsed.start();
    while (!bytes.endsWith(end) && elapsed.elapsed() < 10000) {
        QTest::qWait(5);
        bytes += socket.readAll();
    }
    return bytes;
}

// The upgrade by hand over a plain socket, for QWebSocketServer's own writes.
std::unique_ptr<QTcpSocket> PlainWebSocket(quint16 port)
{
    auto socket = std::make_unique<QTcpSocket>();
    socket->connectToHost(QHostAddress::LocalHost, port);
    if (!socket->waitForConnected(5000))
        return nullptr;
    socket->write("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    QByteArray head;
    QElapsedTimer elapsed;
    elapsed.start();
    while (!head.contains("\r\n\r\n") && elapsed.elapsed() < 5000) {
        QTest::qWait(5);
        head += socket->read(1);
    }
    return head.startsWith("HTTP/1.1 101") ? std::move(socket) : nullptr;
}

} // namespace

class TestUnsentPool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QString error;
        identity = TlsIdentity::LoadOrCreate(dir.path(), &error);
        QVERIFY2(!identity.isNull(), qPrintable(error));
        context = MakeServerContext(identity);
        QVERIFY(context);
        QVERIFY(server.listen(QHostAddress::LocalHost));
    }

    void cleanupTestCase() { SSL_CTX_free(context); }

    // Frame sizes at QWebSocket's frame size and one past it, where the reply
    // is cut into a text frame and a continuation, and at the header's
    // length forms; pings of QWebSocket's own on either side.
    void framedAsQWebSocketFrames_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<int>("frameSize");
        const int frame = int(QWebSocket().outgoingFrameSize());

        QTest::newRow("125 bytes") << 125 << frame;
        QTest::newRow("126 bytes") << 126 << frame;
        QTest::newRow("65,535 bytes") << 65535 << frame;
        QTest::newRow("65,536 bytes") << 65536 << frame;
        QTest::newRow("at the frame size") << frame << frame;
        QTest::newRow("one past the frame size") << frame + 1 << frame;
        QTest::newRow("three frames of 1,000") << 2500 << 1000;
    }

    void framedAsQWebSocketFrames()
    {
        QFETCH(int, size);
        QFETCH(int, frameSize);
        const QByteArray reply = Reply(size, 'r');
        const auto script = [&](QWebSocket *socket, const std::function<void()> &send) {
            socket->setOutgoingFrameSize(quint64(frameSize));
            socket->ping("before");
            send();
            socket->ping("after");
        };

        QWebSocketServer plain(QStringLiteral("reference"), QWebSocketServer::NonSecureMode);
        QVERIFY(plain.listen(QHostAddress::LocalHost));
        auto reference = PlainWebSocket(plain.serverPort());
        QVERIFY(reference);
        QTRY_VERIFY(plain.hasPendingConnections());
        std::unique_ptr<QWebSocket> direct(plain.nextPendingConnection());
        script(direct.get(), [&] { direct->sendTextMessage(QString::fromUtf8(reply)); });

        QWebSocketServer endpoint(QStringLiteral("shared"), QWebSocketServer::NonSecureMode);
        TlsListener listener(identity, &endpoint);
        QVERIFY(listener.IsValid() && listener.Listen(QHostAddress::LocalHost, 0));
        connect(&listener, &TlsListener::Ready, &endpoint, &QWebSocketServer::handleConnection);
        auto client = RawWebSocket(listener.serverPort(), "origin");
        QVERIFY(client);
        QTRY_VERIFY(endpoint.hasPendingConnections());
        std::unique_ptr<QWebSocket> shared(endpoint.nextPendingConnection());
        TlsServerSocket *transport = listener.TakeOver(shared->peerAddress(), shared->peerPort());
        QVERIFY(transport);
        transport->setParent(shared.get());
        script(shared.get(), [&] { QVERIFY(transport->SendText(reply, shared->outgoingFrameSize())); });

        const QByteArray expected = ReadThrough(*reference, "after");
        QVERIFY(expected.size() > size);
        QCOMPARE(ReadThrough(*client, "after"), expected);
    }

    // A peer asks, then pings, without reading: the ping frame waits unread
    // while the answer is queued beyond the connection's share (more than the
    // system takes on its own), and is read once the peer has taken it.
    void readingPausesBetweenFrames()
    {
        QWebSocketServer endpoint(QStringLiteral("paused"), QWebSocketServer::NonSecureMode);
        TlsListener listener(identity, &endpoint);
        QVERIFY(listener.IsValid() && listener.Listen(QHostAddress::LocalHost, 0));
        connect(&listener, &TlsListener::Ready, &endpoint, &QWebSocketServer::handleConnection);
        auto client = RawWebSocket(listener.serverPort(), "origin", QHostAddress::LocalHost, 4096);
        QVERIFY(client);
        QTRY_VERIFY(endpoint.hasPendingConnections());
        std::unique_ptr<QWebSocket> socket(endpoint.nextPendingConnection());
        TlsServerSocket *transport = listener.TakeOver(socket->peerAddress(), socket->peerPort());
        QVERIFY(transport);
        transport->setParent(socket.get());
        const QByteArray answer = Reply(16 * 1024 * 1024, 'a');
        QStringList received;
        connect(socket.get(), &QWebSocket::textMessageReceived, this, [&](const QString &text) {
            received.append(text);
            transport->SendText(answer, socket->outgoingFrameSize());
        });

        client->setReadBufferSize(4096);
        client->write(TextFrame("ask") + TextFrame("again"));
        QTRY_COMPARE(received, QStringList{QStringLiteral("ask")});
        QTest::qWait(300);
        QCOMPARE(received.size(), 1);
        QVERIFY(transport->Backlogged());

        client->setReadBufferSize(0);
        qint64 taken = 0;
        QTRY_VERIFY_WITH_TIMEOUT((taken += client->readAll().size(), received.size() == 2), 20000);
        QVERIFY(taken > answer.size() - 8 * 1024 * 1024);
    }

    // Non-readers hold replies of their own (a small send buffer on the
    // server's side keeps them out of the system), then a reader asks: at the
    // capacity nothing is dropped, past it the non-readers that held the most
    // for the longest are, and the reader gets its whole reply every time.
    void poolDropsTheStuckNotTheReader_data()
    {
        QTest::addColumn<int>("nonReaders");
        QTest::addColumn<int>("readerBytes");
        // Whether the event loop runs between the writes: the non-readers'
        // connections then encrypt past their own share, and the pool counts
        // that too; without, it holds the replies alone, to the byte.
        QTest::addColumn<bool>("settle");
        QTest::addColumn<int>("minDropped");
        QTest::addColumn<int>("maxDropped");
        constexpr int Quarter = Capacity / 4;

        QTest::newRow("at the capacity") << 3 << Quarter << false << 0 << 0;
        QTest::newRow("one past the capacity") << 3 << Quarter + 1 << false << 1 << 1;
        QTest::newRow("a crowd that stopped reading") << 8 << Quarter << true << 5 << 6;
    }

    void poolDropsTheStuckNotTheReader()
    {
        QFETCH(int, nonReaders);
        QFETCH(int, readerBytes);
        QFETCH(bool, settle);
        QFETCH(int, minDropped);
        QFETCH(int, maxDropped);
        auto pool = std::make_shared<UnsentPool>(Capacity);
        QList<TlsServerSocket *> dropped;
        std::vector<Connection> peers;
        // The connections go with the row, and with them what they would report.
        const auto endAll = qScopeGuard([&peers] {
            for (const Connection &peer : peers)
                delete peer.transport;
        });
        for (int i = 0; i <= nonReaders; ++i) {
            peers.push_back(Connect(pool, i < nonReaders));
            QVERIFY(peers.back().transport);
            TlsServerSocket *transport = peers.back().transport;
            connect(transport, &TlsServerSocket::UnsentOverrun, transport,
                    [&dropped, transport] { dropped.append(transport); });
        }
        // Each a list of its own, the oldest first.
        for (int i = 0; i < nonReaders; ++i) {
            QVERIFY(peers[size_t(i)].transport->SendText(Reply(Capacity / 4, char('a' + i)), 1 << 20) || i >= 4);
            QVERIFY(pool->Used() <= Capacity);
            if (settle)
                QTest::qWait(20);
        }
        Connection &reader = peers.back();
        QVERIFY(reader.transport->SendText(Reply(readerBytes, 'z'), 1 << 20));
        QVERIFY(pool->Used() <= Capacity);
        // A text frame's header, with a 64-bit length, then the reply: counted,
        // since any piece of it ends as the whole does.
        QByteArray received;
        QTRY_COMPARE_WITH_TIMEOUT((received += reader.client->readAll()).size(), readerBytes + 10, 10000);
        QVERIFY(!dropped.contains(reader.transport));
        QVERIFY2(dropped.size() >= minDropped && dropped.size() <= maxDropped, qPrintable(QString::number(dropped.size())));
        // The longest stuck went first; unsettled, they tie.
        for (int i = 0; settle && i < dropped.size(); ++i)
            QCOMPARE(dropped.at(i), peers[size_t(i)].transport);
    }

private:
    static constexpr int Capacity = 1024 * 1024;

    struct Connection
    {
        std::unique_ptr<QSslSocket> client;
        TlsServerSocket *transport = nullptr;
    };

    // A session over a TlsServerSocket of its own; a non-reader's client
    // reads nothing past the upgrade, and the server's send buffer is small.
    Connection Connect(const std::shared_ptr<UnsentPool> &pool, bool nonReader)
    {
        Connection c;
        const int before = server.accepted.size();
        const int fd = ConnectedDescriptor(server.serverPort(), QHostAddress(), nonReader ? 4096 : 0);
        QElapsedTimer elapsed;
        elapsed.start();
        while (server.accepted.size() <= before && elapsed.elapsed() < 5000)
            QTest::qWait(5);
        if (fd < 0 || server.accepted.size() <= before)
            return c;
        const int serverFd = int(server.accepted.last());
        const int small = 4096;
        if (nonReader)
            ::setsockopt(serverFd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        auto *transport = new TlsServerSocket(context, serverFd, pool, this);
        connect(transport, &TlsServerSocket::Ready, transport, &TlsServerSocket::StartSession);
        c.client = std::make_unique<QSslSocket>();
        c.client->setPeerVerifyMode(QSslSocket::VerifyNone);
        if (!c.client->setSocketDescriptor(fd))
            return c;
        if (nonReader)
            c.client->setReadBufferSize(4096);
        c.client->startClientEncryption();
        c.client->write("GET / HTTP/1.1\r\n\r\n");
        QSignalSpy ready(transport, &TlsServerSocket::Ready);
        if (ready.wait(5000))
            c.transport = transport;
        return c;
    }

    QTemporaryDir dir;
    TlsIdentity identity;
    SSL_CTX *context = nullptr;
    DescriptorServer server;
};

QTEST_MAIN(TestUnsentPool)
#include "tst_unsentpool.moc"
