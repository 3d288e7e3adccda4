#include "../testsupport.h"
#include "loglevel.h"
#include "tarnsrv.h"
#include "tlsidentity.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

using namespace testsupport;

namespace {

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
        QSignalSpy lines(&first, &TarnSrv::Log);
        QVERIFY(first.LoadIdentity(folder));
        const QString fingerprint = first.Fingerprint();
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines.at(0).at(0).toString(), QStringLiteral("Made a new TLS identity in %1.").arg(folder));
        QCOMPARE(lines.at(1).at(0).toString(), QStringLiteral("TLS certificate SHA-256 fingerprint: %1").arg(fingerprint));
        QCOMPARE(PermissionsOf(folder), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(PermissionsOf(TlsIdentity::KeyPath(folder)), OwnerReadWrite);
        QCOMPARE(PermissionsOf(TlsIdentity::CertificatePath(folder)), OwnerReadWrite);

        TarnSrv second;
        QSignalSpy secondLines(&second, &TarnSrv::Log);
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

    void keyOpenToOthers_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("warned");
        QTest::newRow("owner read only") << 0400 << false;
        QTest::newRow("group may read") << 0640 << true;
        QTest::newRow("others may execute") << 0601 << true;
    }

    // A key that others can reach is narrowed to its owner, with one Warning
    // line naming it; the identity is used either way.
    void keyOpenToOthers()
    {
        QFETCH(int, mode);
        QFETCH(bool, warned);
        const QTemporaryDir temp;
        const QString folder = temp.filePath(QStringLiteral("id"));
        QVERIFY(!TlsIdentity::LoadOrCreate(folder, nullptr).isNull());
        const QByteArray key = QFile::encodeName(TlsIdentity::KeyPath(folder));
        QCOMPARE(::chmod(key.constData(), mode_t(mode)), 0);

        TarnSrv server;
        QSignalSpy lines(&server, &TarnSrv::Log);
        QVERIFY(server.LoadIdentity(folder));
        struct stat info = {};
        QCOMPARE(::stat(key.constData(), &info), 0);
        QCOMPARE(int(info.st_mode & 0777), warned ? 0600 : mode);
        QCOMPARE(lines.size(), warned ? 2 : 1);
        if (warned) {
            QCOMPARE(lines.at(0).at(1).toUInt(), quint32(LogLevel::Warning));
            QCOMPARE(lines.at(0).at(0).toString(),
                     QStringLiteral("The TLS key %1 was open to other users (mode 0%2); it is now readable by its "
                                    "owner alone (0600).")
                         .arg(TlsIdentity::KeyPath(folder))
                         .arg(mode, 0, 8));
        }
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
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("damage"); // half, gone, folder, other (another pair's key) or new content
        QTest::newRow("truncated key") << "identity.key" << "half";
        QTest::newRow("key is a folder") << "identity.key" << "folder";
        QTest::newRow("key missing") << "identity.key" << "gone";
        QTest::newRow("certificate missing") << "identity.crt" << "gone";
        QTest::newRow("garbage certificate")
            << "identity.crt" << "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
        QTest::newRow("key of another pair") << "identity.key" << "other";
    }

    void damagedIdentityStopsServer()
    {
        QFETCH(QString, file);
        QFETCH(QString, damage);
        const QTemporaryDir temp;
        const QString folder = temp.filePath(QStringLiteral("id"));
        const QString key = TlsIdentity::KeyPath(folder);
        const QString certificate = TlsIdentity::CertificatePath(folder);
        const QString other = temp.filePath(QStringLiteral("other"));
        QVERIFY(!TlsIdentity::LoadOrCreate(folder, nullptr).isNull());
        const QString path = QDir(folder).filePath(file);
        const QByteArray bytes = FileBytes(path);
        if (damage == QLatin1String("half"))
            QVERIFY(WriteFile(path, bytes.left(bytes.size() / 2)));
        else if (damage == QLatin1String("gone") || damage == QLatin1String("folder"))
            QVERIFY(QFile::remove(path) && (damage == QLatin1String("gone") || QDir().mkdir(path)));
        else if (damage == QLatin1String("other"))
            QVERIFY(!TlsIdentity::LoadOrCreate(other, nullptr).isNull() && WriteFile(path, FileBytes(TlsIdentity::KeyPath(other))));
        else
            QVERIFY(WriteFile(path, damage.toUtf8()));
        const QByteArray keyBefore = FileBytes(key);
        const QByteArray certificateBefore = FileBytes(certificate);

        TarnSrv server;
        QSignalSpy lines(&server, &TarnSrv::Log);
        QVERIFY(!server.LoadIdentity(folder));
        QCOMPARE(lines.size(), 1);
        QCOMPARE(lines.at(0).at(1).toUInt(), 2u);
        QVERIFY2(lines.at(0).at(0).toString().contains(path), qPrintable(lines.at(0).at(0).toString()));
        QCOMPARE(server.Start(0), -1);
        QVERIFY(!server.IsRunning());
        QCOMPARE(FileBytes(key), keyBefore);
        QCOMPARE(FileBytes(certificate), certificateBefore);
    }
};

QTEST_GUILESS_MAIN(TestTlsIdentity)
#include "tst_tlsidentity.moc"
