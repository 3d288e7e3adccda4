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
    void requestLayout();
    void replyLayout();
    void requestAnswered_data();
    void requestAnswered();
    void repliesCollectedOnce();
    void bindSkipsTakenPorts_data();
    void bindSkipsTakenPorts();
    void localAddressFor_data();
    void localAddressFor();

private:
    static QByteArray Utf16Id(const QString &id);
};

QByteArray TestSrvUrlDetect::Utf16Id(const QString &id)
{
    QByteArray bytes;
    for (QChar c : id)
        bytes += '\0' + QByteArray(1, char(c.unicode()));
    return bytes;
}

void TestSrvUrlDetect::requestLayout()
{
    const QByteArray datagram = SrvUrlDetect::RequestDatagram();
    QCOMPARE(datagram.size(), 76);
    QCOMPARE(datagram.left(4), QByteArray::fromHex("00000048"));
    QCOMPARE(datagram.mid(4), Utf16Id(QStringLiteral("a24566ba-d6a4-44a8-9dcb-31f3d88e699d")));
}

void TestSrvUrlDetect::replyLayout()
{
    const QByteArray url("wss://192.168.10.7:50443");
    const QByteArray datagram = SrvUrlDetect::ReplyDatagram(QUrl(QString::fromLatin1(url)));
    QCOMPARE(datagram.size(), 80 + url.size());
    QCOMPARE(datagram.left(4), QByteArray::fromHex("00000048"));
    QCOMPARE(datagram.mid(4, 72), Utf16Id(QStringLiteral("b7fb56d1-2592-4625-85e4-dd05cfcd99cd")));
    QCOMPARE(datagram.mid(76, 4), QByteArray::fromHex("00000018"));
    QCOMPARE(datagram.mid(80), url);
}

void TestSrvUrlDetect::requestAnswered_data()
{
    QTest::addColumn<QByteArray>("probe");
    QTest::addColumn<bool>("answered");

    const QByteArray request = SrvUrlDetect::RequestDatagram();
    QByteArray upperCase;
    {
        QDataStream out(&upperCase, QIODevice::WriteOnly);
        out << SrvUrlDetect::DiscoveryRequestId.toUpper();
    }
    QTest::newRow("request") << request << true;
    QTest::newRow("request with trailing bytes") << request + "junk" << true;
    QTest::newRow("upper-case identifier") << upperCase << false;
    QTest::newRow("truncated") << request.left(40) << false;
    QTest::newRow("empty") << QByteArray() << false;
    QTest::newRow("length beyond datagram") << QByteArray::fromHex("7fffffff0061") << false;
    QTest::newRow("reply identifier") << SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://1.2.3.4:5")))
                                      << false;
}

// The probe is followed by a genuine request: one reply means the probe was ignored.
void TestSrvUrlDetect::requestAnswered()
{
    QFETCH(QByteArray, probe);
    QFETCH(bool, answered);

    SrvUrlDetect responder(nullptr);
    QCOMPARE(responder.Advertise(QUrl(QStringLiteral("wss://0.0.0.0:50443"))), 0);

    QUdpSocket requester;
    QVERIFY(requester.bind(QHostAddress::LocalHost, 0));
    const auto target = quint16(responder.Port());
    requester.writeDatagram(probe, QHostAddress::LocalHost, target);
    requester.writeDatagram(SrvUrlDetect::RequestDatagram(), QHostAddress::LocalHost, target);

    const int expected = answered ? 2 : 1;
    QList<QByteArray> replies;
    QTRY_VERIFY([&] {
        while (requester.hasPendingDatagrams())
            replies.append(requester.receiveDatagram().data());
        return replies.size() >= expected;
    }());
    QTest::qWait(100);
    QCOMPARE(requester.hasPendingDatagrams(), false);
    for (const QByteArray &reply : replies)
        QCOMPARE(reply, SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://127.0.0.1:50443"))));
}

void TestSrvUrlDetect::repliesCollectedOnce()
{
    // A detector keeps each URL once, in order of arrival...
    SrvUrlDetect detector(nullptr);
    QCOMPARE(detector.Bind(), 0);
    QUdpSocket peer;
    QVERIFY(peer.bind(QHostAddress::LocalHost, 0));
    const auto target = quint16(detector.Port());
    const QUrl first(QStringLiteral("wss://10.1.1.1:443"));
    const QUrl second(QStringLiteral("wss://10.2.2.2:443"));
    for (const QUrl &url : {first, second, first})
        peer.writeDatagram(SrvUrlDetect::ReplyDatagram(url), QHostAddress::LocalHost, target);
    QTRY_COMPARE(detector.Urls(), QList<QUrl>({first, second}));

    // ...and, holding URLs, answers a request as a responder would.
    peer.writeDatagram(SrvUrlDetect::RequestDatagram(), QHostAddress::LocalHost, target);
    QTRY_VERIFY(peer.hasPendingDatagrams());
    QCOMPARE(peer.receiveDatagram().data(),
             SrvUrlDetect::ReplyDatagram(QUrl(QStringLiteral("wss://127.0.0.1:443"))));
}

void TestSrvUrlDetect::bindSkipsTakenPorts_data()
{
    QTest::addColumn<int>("takenUpTo");

    QTest::newRow("nothing taken") << SrvUrlDetect::DiscoveryFirstPort - 1;
    QTest::newRow("first taken") << 49152;
    QTest::newRow("only the last free") << 49171;
    QTest::newRow("whole range taken") << 49172;
}

// The responder takes the first free port from 49152 upward and refuses 49172
// alone. Ports that other programs hold count as taken, so the expected port is
// found by probing, not assumed.
void TestSrvUrlDetect::bindSkipsTakenPorts()
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

void TestSrvUrlDetect::localAddressFor_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<QString>("local");

    QTest::newRow("loopback itself") << "127.0.0.1" << "127.0.0.1";
    QTest::newRow("loopback subnet") << "127.44.5.6" << "127.0.0.1";
    QTest::newRow("documentation range") << "203.0.113.9" << "0.0.0.0";
    QTest::newRow("zero") << "0.0.0.0" << "0.0.0.0";
}

void TestSrvUrlDetect::localAddressFor()
{
    QFETCH(QString, peer);
    QFETCH(QString, local);
    const quint32 found = SrvUrlDetect::LocalAddressFor(QHostAddress(peer).toIPv4Address());
    QCOMPARE(QHostAddress(found).toString(), local);
}

QTEST_MAIN(TestSrvUrlDetect)
#include "tst_srvurldetect.moc"
