#include "srvurldetect.h"

#include <QDataStream>
#include <QNetworkDatagram>
#include <QUdpSocket>
#include <QtTest>
#include <memory>
#include <vector>

// Everything here talks to 127.0.0.1 directly; broadcasts are tested only inside
// private network namespaces (see netns_discovery.sh).
class TestSrvUrlDetect : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        peer = std::make_unique<QUdpSocket>();
        QVERIFY(peer->bind(QHostAddress::LocalHost, 0));
    }

    void datagramLayout()
    {
        const QByteArray idLength = QByteArray::fromHex("00000048");
        QCOMPARE(SrvUrlDetect::RequestDatagram(),
                 idLength + Utf16Id(QStringLiteral("a24566ba-d6a4-44a8-9dcb-31f3d88e699d")));
        const QByteArray url("wss://192.168.10.7:50443");
        QCOMPARE(SrvUrlDetect::ReplyDatagram(QUrl(QString::fromLatin1(url))),
                 idLength + Utf16Id(QStringLiteral("b7fb56d1-2592-4625-85e4-dd05cfcd99cd"))
                     + QByteArray::fromHex("00000018") + url);
    }

    void requestAnswered_data()
    {
        QTest::addColumn<QByteArray>("probe");
        QTest::addColumn<bool>("answered");

        const QByteArray request = SrvUrlDetect::RequestDatagram();
        QByteArray upperCase;
        QDataStream upper(&upperCase, QIODevice::WriteOnly);
        upper << SrvUrlDetect::DiscoveryRequestId.toUpper();
        QTest::newRow("request") << request << true;
        QTest::newRow("request with trailing bytes") << request + "junk" << true;
        QTest::newRow("upper-case identifier") << upperCase << false;
        QTest::newRow("empty") << QByteArray() << false;
        QTest::newRow("length beyond datagram") << QByteArray::fromHex("7fffffff0061") << false;
        QTest::newRow("reply identifier") << SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://1.2.3.4:5")))
                                          << false;
    }

    // The probe is followed by a genuine request: one reply means the probe was ignored.
    void requestAnswered()
    {
        QFETCH(QByteArray, probe);
        QFETCH(bool, answered);

        SrvUrlDetect responder(nullptr);
        const QUrl advertised(QStringLiteral("wss://0.0.0.0:50443"));
        QCOMPARE(responder.Advertise(advertised), 0);

        Send(probe, responder.Port());
        Send(SrvUrlDetect::RequestDatagram(), responder.Port());

        QList<QByteArray> replies;
        QTRY_VERIFY((replies += Received()).size() >= (answered ? 2 : 1));
        QTest::qWait(100);
        QCOMPARE(peer->hasPendingDatagrams(), false);
        for (const QByteArray &reply : replies)
            QCOMPARE(reply, SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://127.0.0.1:50443"))));
        // A responder learns nothing from replies, however many arrive.
        QCOMPARE(responder.Urls(), QList<QUrl>{advertised});
    }

    // A flood of requests gets a bounded number of answers.
    void requestFloodAnsweredWithinBudget()
    {
        SrvUrlDetect responder(nullptr);
        QCOMPARE(responder.Advertise(QUrl(QStringLiteral("wss://0.0.0.0:50443"))), 0);
        for (int i = 0; i < 3 * SrvUrlDetect::MaxAnswersPerSecond; ++i)
            Send(SrvUrlDetect::RequestDatagram(), responder.Port());
        int replies = 0;
        QTRY_VERIFY((replies += Received().size()) >= SrvUrlDetect::MaxAnswersPerSecond);
        QTest::qWait(200);
        replies += Received().size();
        // The requests may straddle two one-second windows.
        QVERIFY2(replies <= 2 * SrvUrlDetect::MaxAnswersPerSecond, qPrintable(QString::number(replies)));
    }

    void repliesCollectedOnce()
    {
        // A detector keeps each URL once, in order of arrival, and only the first
        // MaxDetectedUrls of them...
        SrvUrlDetect detector(nullptr);
        QCOMPARE(detector.Bind(), 0);
        QList<QUrl> sent;
        for (int i = 0; i <= SrvUrlDetect::MaxDetectedUrls; ++i)
            sent.append(QUrl(QStringLiteral("wss://127.0.0.1:%1").arg(443 + i)));
        for (const QUrl &url : QList<QUrl>{sent.first()} + sent)
            Send(SrvUrlDetect::ReplyDatagram(url), detector.Port());
        QTRY_COMPARE(detector.Urls(), sent.mid(0, SrvUrlDetect::MaxDetectedUrls));

        // ...and, holding URLs, answers a request as a responder would.
        Send(SrvUrlDetect::RequestDatagram(), detector.Port());
        QTRY_VERIFY(peer->hasPendingDatagrams());
        QCOMPARE(Received(), QList<QByteArray>{SrvUrlDetect::ReplyDatagram(sent.first())});
    }

    void replyChecked_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<bool>("kept");

        const QByteArray reply = SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://127.0.0.1:444")));

        // A reply may name only its sender, by address.
        QTest::newRow("sender's address") << RawReply("wss://127.0.0.1:50443") << true;
        QTest::newRow("sender's name") << RawReply("wss://localhost:50443") << false;
        QTest::newRow("another host's address") << RawReply("wss://192.168.10.7:50443") << false;
        QTest::newRow("URL cut short") << reply.left(reply.size() - 3) << false;
        QTest::newRow("other scheme") << RawReply("https://127.0.0.1:443") << false;
        QTest::newRow("no port") << RawReply("wss://127.0.0.1") << false;
        QTest::newRow("port 0") << RawReply("wss://127.0.0.1:0") << false;
        QTest::newRow("path") << RawReply("wss://127.0.0.1:443/") << false;
        QTest::newRow("empty user") << RawReply("wss://@127.0.0.1:443") << false;
        QTest::newRow("query") << RawReply("wss://127.0.0.1:443?x") << false;
        QTest::newRow("fragment") << RawReply("wss://127.0.0.1:443#x") << false;
    }

    // The reply is followed by a good one: once that arrives, the first was judged.
    void replyChecked()
    {
        QFETCH(QByteArray, reply);
        QFETCH(bool, kept);

        SrvUrlDetect detector(nullptr);
        QCOMPARE(detector.Bind(), 0);
        const QUrl good(QStringLiteral("wss://127.0.0.1:443"));
        Send(reply, detector.Port());
        Send(SrvUrlDetect::ReplyDatagram(good), detector.Port());
        QTRY_VERIFY(detector.Urls().contains(good));
        QCOMPARE(detector.Urls().size(), kept ? 2 : 1);
    }

    void bindSkipsTakenPorts_data()
    {
        QTest::addColumn<int>("takenUpTo");

        QTest::newRow("nothing taken") << SrvUrlDetect::DiscoveryFirstPort - 1;
        QTest::newRow("only the last free") << 49171;
        QTest::newRow("whole range taken") << 49172;
    }

    // The responder takes the first free port from 49152 upward and refuses 49172
    // alone. Ports that other programs hold count as taken, so the expected port is
    // found by probing, not assumed.
    void bindSkipsTakenPorts()
    {
        QFETCH(int, takenUpTo);

        std::vector<std::unique_ptr<QUdpSocket>> holders;
        for (int p = SrvUrlDetect::DiscoveryFirstPort; p <= takenUpTo; ++p) {
            holders.push_back(std::make_unique<QUdpSocket>());
            holders.back()->bind(QHostAddress::Any, quint16(p));
        }
        int expected = SrvUrlDetect::DiscoveryFirstPort;
        for (QUdpSocket probe; !probe.bind(QHostAddress::Any, quint16(expected)); probe.close())
            ++expected;
        QVERIFY(expected > takenUpTo);

        SrvUrlDetect responder(nullptr);
        QCOMPARE(responder.Advertise(QUrl(QStringLiteral("wss://0.0.0.0:7"))),
                 expected == SrvUrlDetect::DiscoveryLastPort ? -1 : 0);
        QCOMPARE(responder.Port(), expected);
        QCOMPARE(responder.Urls().isEmpty(), expected == SrvUrlDetect::DiscoveryLastPort);
    }

    void localAddressFor_data()
    {
        QTest::addColumn<QString>("peer");
        QTest::addColumn<QString>("local");

        QTest::newRow("loopback subnet") << "127.44.5.6" << "127.0.0.1";
        QTest::newRow("documentation range") << "203.0.113.9" << "0.0.0.0";
    }

    void localAddressFor()
    {
        QFETCH(QString, peer);
        QFETCH(QString, local);
        const quint32 found = SrvUrlDetect::LocalAddressFor(QHostAddress(peer).toIPv4Address());
        QCOMPARE(QHostAddress(found).toString(), local);
    }

private:
    void Send(const QByteArray &datagram, int port) { peer->writeDatagram(datagram, QHostAddress::LocalHost, quint16(port)); }
    QList<QByteArray> Received()
    {
        QList<QByteArray> datagrams;
        while (peer->hasPendingDatagrams())
            datagrams.append(peer->receiveDatagram().data());
        return datagrams;
    }
    static QByteArray Utf16Id(const QString &id);
    static QByteArray RawReply(const QByteArray &url);

    std::unique_ptr<QUdpSocket> peer;
};

// A reply carrying any bytes as its URL, as a hostile peer may send.
QByteArray TestSrvUrlDetect::RawReply(const QByteArray &url)
{
    QByteArray datagram;
    QDataStream out(&datagram, QIODevice::WriteOnly);
    out << SrvUrlDetect::DiscoveryReplyId << url;
    return datagram;
}

QByteArray TestSrvUrlDetect::Utf16Id(const QString &id)
{
    QByteArray bytes;
    for (QChar c : id)
        bytes += '\0' + QByteArray(1, char(c.unicode()));
    return bytes;
}

QTEST_MAIN(TestSrvUrlDetect)
#include "tst_srvurldetect.moc"
