#include "proctools.h"
#include "qtservice.h"
#include "scmtools.h"

#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// The substitute control manager's defences: its database is its user's
// alone, its control sockets answer only that user, and an unusable database
// fails at once instead of waiting for its lock forever.
class TestScmSubstitute : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void unusableDatabase_data();
    void unusableDatabase();
    void databaseIsPrivate();
    void controlFromOtherUserRefused();

private:
    void installProbe(int flags);

    QTemporaryDir root;
    const QString probe = QStringLiteral(SVC_PROBE_PATH);
    const QString name = QStringLiteral("tst_probe");
};

namespace {

// Sends a control code to a service's socket from a process of user nobody:
// 0 accepted, 1 refused, 2 no connection.
int controlAsNobody(const QString &dir, const QString &socketName, quint32 code)
{
    const QByteArray folder = QFile::encodeName(dir);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(socketName).constData(), sizeof(address.sun_path));
    const quint32 request = qToBigEndian(code);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(10);
        // Connected from inside the folder, so its parents need not be open to nobody.
        const uid_t nobody = 65534;
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (::chdir(folder.constData()) != 0 || ::setgroups(0, nullptr) != 0 || ::setgid(nobody) != 0
            || ::setuid(nobody) != 0 || fd < 0
            || ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0)
            ::_exit(2);
        quint32 error = 1;
        const bool replied = ::write(fd, &request, sizeof(request)) == sizeof(request)
                             && ::read(fd, &error, sizeof(error)) == sizeof(error);
        ::_exit(replied && error == 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

void TestScmSubstitute::initTestCase()
{
    QVERIFY(root.isValid());
    qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
    QVERIFY(resolveScmFunctions());
}

void TestScmSubstitute::cleanup()
{
    killAll(probe);
    qputenv("TARN_SCM_ROOT", root.path().toLocal8Bit());
    QtServiceController(name).uninstall();
}

void TestScmSubstitute::installProbe(int flags)
{
    qputenv("SVC_PROBE_NAME", name.toUtf8());
    qputenv("SVC_PROBE_FLAGS", QByteArray::number(flags));
    QVERIFY(QtServiceController::install(probe));
}

void TestScmSubstitute::unusableDatabase_data()
{
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<QString>("reason");

    QTest::newRow("folder cannot be made") << false << "cannot create the folder";
    QTest::newRow("read-only folder") << true << "cannot write to it (";
}

// A database that cannot be used: one clear line, at once, not an endless
// wait for its lock.
void TestScmSubstitute::unusableDatabase()
{
    QFETCH(bool, readOnly);
    QFETCH(QString, reason);

    QString db = root.filePath(QStringLiteral("db"));
    QStringList command = {probe, QStringLiteral("-v")};
    if (!readOnly) {
        QFile blocker(root.filePath(QStringLiteral("not-a-folder")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        db = blocker.fileName() + QLatin1String("/db");
    } else if (::geteuid() == 0) { // root writes through modes: a read-only mount of its own
        QVERIFY(QDir().mkpath(db));
        command = QStringList{QStringLiteral("unshare"), QStringLiteral("-m"), QStringLiteral("sh"), QStringLiteral("-c"),
                              QStringLiteral("mount --bind \"$1\" \"$1\" && mount -o remount,bind,ro \"$1\" || exit 77; "
                                             "exec \"$2\" -v"),
                              QStringLiteral("sh"), db, probe};
    } else {
        QVERIFY(QDir().mkpath(db));
        QVERIFY(QFile::setPermissions(db, QFileDevice::ReadOwner | QFileDevice::ExeOwner));
    }
    qputenv("TARN_SCM_ROOT", db.toLocal8Bit());
    QProcess host;
    host.start(command.first(), command.mid(1));
    const bool finished = host.waitForFinished(15000);
    if (!finished) {
        host.kill();
        host.waitForFinished();
    }
    QFile::setPermissions(db, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QVERIFY(finished);
    if (host.exitCode() == 77)
        QSKIP("no read-only mount possible here");
    QCOMPARE(host.exitCode(), 0);
    QCOMPARE(host.readAllStandardOutput(),
             "The service\n\ttst_probe\n\t" + probe.toUtf8() + "\n\nis not installed and not running\n\n");
    const QByteArray err = host.readAllStandardError();
    QVERIFY2(err.startsWith("Service control manager: the database folder " + db.toUtf8() + " is not usable: "
                            + reason.toUtf8())
                 && err.count('\n') == 1,
             err.constData());
}

// A permissive umask must not open the database to other users: it holds
// the launch tokens and the services' output.
void TestScmSubstitute::databaseIsPrivate()
{
    const QString db = root.filePath(QStringLiteral("private/db"));
    qputenv("TARN_SCM_ROOT", db.toLocal8Bit());
    const mode_t mask = ::umask(0);
    const auto restoreMask = qScopeGuard([mask] { ::umask(mask); });
    installProbe(0);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));
    ScmFunctions &scm = scmFunctions();
    HANDLE source = scm.RegisterEventSourceW(nullptr, wideText(name));
    LPCWSTR text = u"event";
    QVERIFY(source && scm.ReportEventW(source, 4, 0, 0, nullptr, 1, 0, &text, nullptr));
    scm.DeregisterEventSource(source);

    const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
                                            | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    const QFileDevice::Permissions owner = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
    QCOMPARE(QFileInfo(db).permissions() & (owner | others), owner);
    QStringList kinds;
    const QFileInfoList entries = QDir(db).entryInfoList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        QVERIFY2(!(entry.permissions() & others), qPrintable(entry.fileName()));
        kinds.append(entry.suffix());
    }
    kinds.sort();
    QCOMPARE(kinds, (QStringList{"ctl", "log", "svc", "txt"})); // socket, output, record, event log
    QVERIFY(controller.stop());
}

void TestScmSubstitute::controlFromOtherUserRefused()
{
    if (::geteuid() != 0)
        QSKIP("connecting as another user needs root");
    installProbe(QtServiceBase::CanBeSuspended);
    QtServiceController controller(name);
    QVERIFY(controller.start());
    QVERIFY(waitForServiceState(name, Scm::StateRunning));

    // Folder and socket opened to everybody: only the credentials check is left.
    const QList<qint64> services = processesOf(probe);
    QCOMPARE(services.size(), 1);
    const QString socket = QStringLiteral("%1.ctl").arg(services.first());
    const QFileDevice::Permissions all(0x7777);
    QVERIFY(QFile::setPermissions(root.path(), all));
    QVERIFY(QFile::setPermissions(root.filePath(socket), all));
    const int outcome = controlAsNobody(root.path(), socket, Scm::ControlPause);
    QFile::setPermissions(root.path(), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QCOMPARE(outcome, 1);
    QCOMPARE(serviceState(name), DWORD(Scm::StateRunning));
    QVERIFY(controller.stop());
}

QTEST_GUILESS_MAIN(TestScmSubstitute)
#include "tst_scmsubstitute.moc"
