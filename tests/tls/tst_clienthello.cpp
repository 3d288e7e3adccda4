#include "clienthello.h"

#include <QtTest>

// The first bytes of a connection, judged before any TLS state exists.
class TestClientHello : public QObject
{
    Q_OBJECT

private slots:
    void verdict_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("verdict");

        const auto hello = [](int recordLength, int helloLength, int sent) {
            QByteArray bytes = QByteArray::fromHex("1603010000010000 00");
            bytes[3] = char(recordLength >> 8);
            bytes[4] = char(recordLength);
            bytes[6] = char(helloLength >> 16);
            bytes[7] = char(helloLength >> 8);
            bytes[8] = char(helloLength);
            return bytes + QByteArray(sent - bytes.size(), '\0');
        };
        const int need = int(ClientHello::Verdict::NeedMore);
        const int complete = int(ClientHello::Verdict::Complete);
        const int refused = int(ClientHello::Verdict::Refused);
        constexpr int Max = ClientHello::MaxBytes;

        QTest::newRow("nothing yet") << QByteArray() << need;
        QTest::newRow("record header only") << hello(512, 508, 5) << need;
        QTest::newRow("largest hello, one byte short") << hello(Max, Max - 4, 5 + Max - 1) << need;
        QTest::newRow("largest hello, whole") << hello(Max, Max - 4, 5 + Max) << complete;
        QTest::newRow("record one past the limit") << hello(Max + 1, Max - 3, 9) << refused;
        QTest::newRow("hello longer than its record") << hello(512, 509, 9) << refused;
        QTest::newRow("record too short for a handshake") << hello(3, 0, 5) << refused;
        QTest::newRow("plain HTTP") << QByteArray("GET / HTTP/1.1\r\n") << refused;
        QTest::newRow("SSL 2 version") << QByteArray::fromHex("1602") << refused;
        QTest::newRow("not a ClientHello") << QByteArray::fromHex("16030100200200") << refused;
    }

    void verdict()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, verdict);
        QCOMPARE(int(ClientHello::Check(bytes.constData(), bytes.size())), verdict);
    }
};

QTEST_APPLESS_MAIN(TestClientHello)
#include "tst_clienthello.moc"
