#include "../testsupport.h"
#include "tarnsrv.h"
#include "tlsidentity.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace testsupport;

namespace {

struct LogLine
{
    QString text;
    quint32 type;
};

void Collect(TarnSrv &server, QList<LogLine> &into)
{
    QObject::connect(&server, &TarnSrv::Log, &server,
                     [&into](const QString &text, quint32 type, bool) { into.append({text, type}); });
}

QFile::Permissions PermissionsOf(const QString &path)
{
    // The "user" bits mirror the owner's and depend on who runs the test.
    return QFileInfo(path).permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser);
}

const QFile::Permissions OwnerReadWrite = QFile::ReadOwner | QFile::WriteOwner;

} // namespace

class TestTlsIdentity : public QObject
{
    Q_OBJECT

private slots:
    // Made once, owner-only, kept across starts; renewal replaces it.
    void identityMadeOnceAndKept()
    {
        const QTemporaryDir temp;
        const QString folder = temp.filePath(QStringLiteral("state/tarn"));
        TarnSrv first;
        QList<LogLine> lines;
        Collect(first, lines);
        QVERIFY(first.LoadIdentity(folder));
        const QString fingerprint = first.Fingerprint();
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines.at(0).text, QStringLiteral("Made a new TLS identity in %1.").arg(folder));
        QCOMPARE(lines.at(1).text, QStringLiteral("TLS certificate SHA-256 fingerprint: %1").arg(fingerprint));
        QCOMPARE(PermissionsOf(folder), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(PermissionsOf(TlsIdentity::KeyPath(folder)), OwnerReadWrite);
        QCOMPARE(PermissionsOf(TlsIdentity::CertificatePath(folder)), OwnerReadWrite);

        TarnSrv second;
        QList<LogLine> secondLines;
        Collect(second, secondLines);
        QVERIFY(second.LoadIdentity(folder));
        QCOMPARE(second.Fingerprint(), fingerprint);
        QCOMPARE(secondLines.size(), 1);

        QString error;
        const TlsIdentity renewed = TlsIdentity::Renew(folder, &error);
        QVERIFY2(!renewed.isNull(), qPrintable(error));
        QVERIFY(renewed.Fingerprint() != fingerprint);
        QCOMPARE(PermissionsOf(TlsIdentity::KeyPath(folder)), OwnerReadWrite);
        QCOMPARE(TlsIdentity::LoadOrCreate(folder, &error).Fingerprint(), renewed.Fingerprint());
    }

    // A leaf for this host with an ECDSA P-256 key, never a CA.
    void certificateIsServerLeaf()
    {
        const QTemporaryDir temp;
        const TlsIdentity identity = TlsIdentity::LoadOrCreate(temp.path(), nullptr);
        QCOMPARE(identity.key.algorithm(), QSsl::Ec);
        QCOMPARE(identity.key.length(), 256);
        const QString text = identity.certificate.toText();
        for (const char *expected : {"CA:FALSE", "Digital Signature", "TLS Web Server Authentication", "DNS:localhost"})
            QVERIFY2(text.contains(QLatin1String(expected)), expected);
        QVERIFY(!text.contains(QLatin1String("Certificate Sign")));
        QVERIFY(identity.certificate.expiryDate() > QDateTime::currentDateTimeUtc().addDays(365));
    }

    // Damage is reported with the path and leaves the files as they were: a new
    // key would silently change what every client has pinned.
    void damagedIdentityStopsServer_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::addColumn<QString>("named");
        QTest::newRow("garbage key") << "garbage key" << "identity.key";
        QTest::newRow("truncated key") << "truncated key" << "identity.key";
        QTest::newRow("key is a folder") << "key folder" << "identity.key";
        QTest::newRow("key missing") << "no key" << "identity.key";
        QTest::newRow("certificate missing") << "no certificate" << "identity.crt";
        QTest::newRow("garbage certificate") << "garbage certificate" << "identity.crt";
        QTest::newRow("key of another pair") << "other key" << "identity.key";
    }

    void damagedIdentityStopsServer()
    {
        QFETCH(QString, damage);
        QFETCH(QString, named);
        const QTemporaryDir temp;
        const QString folder = temp.filePath(QStringLiteral("id"));
        const QString key = TlsIdentity::KeyPath(folder);
        const QString certificate = TlsIdentity::CertificatePath(folder);
        QVERIFY(!TlsIdentity::LoadOrCreate(folder, nullptr).isNull());
        Damage(damage, key, certificate, temp.filePath(QStringLiteral("other")));
        const QByteArray keyBefore = FileBytes(key);
        const QByteArray certificateBefore = FileBytes(certificate);

        TarnSrv server;
        QList<LogLine> lines;
        Collect(server, lines);
        QVERIFY(!server.LoadIdentity(folder));
        QCOMPARE(lines.size(), 1);
        QCOMPARE(lines.at(0).type, 2u);
        QVERIFY2(lines.at(0).text.contains(QDir(folder).filePath(named)), qPrintable(lines.at(0).text));
        QCOMPARE(server.Start(0), -1);
        QVERIFY(!server.IsRunning());
        QCOMPARE(FileBytes(key), keyBefore);
        QCOMPARE(FileBytes(certificate), certificateBefore);
    }

private:
    static void Damage(const QString &damage, const QString &key, const QString &certificate, const QString &other)
    {
        const QByteArray keyBytes = FileBytes(key);
        if (damage == QLatin1String("garbage key"))
            QVERIFY(WriteFile(key, "not a key\n"));
        else if (damage == QLatin1String("truncated key"))
            QVERIFY(WriteFile(key, keyBytes.left(keyBytes.size() / 2)));
        else if (damage == QLatin1String("key folder"))
            QVERIFY(QFile::remove(key) && QDir().mkdir(key));
        else if (damage == QLatin1String("no key"))
            QVERIFY(QFile::remove(key));
        else if (damage == QLatin1String("no certificate"))
            QVERIFY(QFile::remove(certificate));
        else if (damage == QLatin1String("garbage certificate"))
            QVERIFY(WriteFile(certificate, "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"));
        else if (damage == QLatin1String("other key"))
            QVERIFY(!TlsIdentity::LoadOrCreate(other, nullptr).isNull()
                    && WriteFile(key, FileBytes(TlsIdentity::KeyPath(other))));
    }
};

QTEST_GUILESS_MAIN(TestTlsIdentity)
#include "tst_tlsidentity.moc"
