#include "../testsupport.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QSocketNotifier>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <cstring>
#include <memory>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace testsupport;

namespace {

constexpr int SunPathSize = int(sizeof(sockaddr_un::sun_path));
// WATCHDOG_USEC of the runs: the manager pings every 100 ms.
constexpr int WatchdogUsec = 200000;
constexpr int PingMs = WatchdogUsec / 2000;

// systemd's end of the notification socket: a datagram socket bound to a
// path or, with a leading '@', to an abstract name. Each message is kept with
// the time it arrived.
class NotifyListener : public QObject
{
public:
    ~NotifyListener() override
    {
        if (fd >= 0)
            ::close(fd);
    }

    bool Bind(const QByteArray &name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const bool abstract = name.startsWith('@');
        if (name.size() > SunPathSize - (abstract ? 0 : 1))
            return false;
        std::memcpy(address.sun_path, name.constData(), size_t(name.size()));
        if (abstract)
            address.sun_path[0] = '\0';
        const auto length = socklen_t(offsetof(sockaddr_un, sun_path) + size_t(name.size()) + (abstract ? 0 : 1));
        fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr *>(&address), length) != 0)
            return false;
        clock.start();
        notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
        connect(notifier.get(), &QSocketNotifier::activated, this, &NotifyListener::Receive);
        return true;
    }

    int Count(const QByteArray &state) const { return int(std::count(messages.cbegin(), messages.cend(), state)); }
    // The first message that begins with the state, or -1.
    int IndexOf(const QByteArray &state) const
    {
        for (int i = 0; i < messages.size(); ++i)
            if (messages[i].startsWith(state))
                return i;
        return -1;
    }

    QList<QByteArray> messages;
    QList<qint64> arrivals;

private:
    void Receive()
    {
        char buffer[4096];
        ssize_t size;
        while ((size = ::recv(fd, buffer, sizeof buffer, 0)) >= 0) {
            messages.append(QByteArray(buffer, int(size)));
            arrivals.append(clock.elapsed());
        }
    }

    int fd = -1;
    std::unique_ptr<QSocketNotifier> notifier;
    QElapsedTimer clock;
};

// "device:inode" of a file, as JOURNAL_STREAM gives the journal's stream.
QByteArray DeviceAndInode(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return QByteArray();
    return QByteArray::number(qulonglong(status.st_dev)) + ':' + QByteArray::number(qulonglong(status.st_ino));
}

} // namespace

// The headless manager as systemd runs it (Type=notify, WatchdogSec, its
// stderr the journal's stream), with the test in systemd's place: a private
// program folder with its TarnSrv.cfg, private settings, identity, lock and
// log folders, and the notification socket in a folder of the test's own.
class TestSystemd : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        dir = std::make_unique<QTemporaryDir>();
        port = FreePort();
        QVERIFY(MakeManagerFolder(dir->path(), QStringLiteral(TARN_MANAGER_PATH), port));
        listener = std::make_unique<NotifyListener>();
        err.clear();
        connect(&manager, &QProcess::readyReadStandardError, this, [this] { err += manager.readAllStandardError(); });
    }

    void cleanup()
    {
        manager.kill();
        manager.waitForFinished();
        manager.disconnect(this);
        manager.setStandardErrorFile(QString());
        listener.reset();
        dir.reset();
    }

    void notifications_data()
    {
        QTest::addColumn<QByteArray>("notifySocket");
        QTest::addColumn<QByteArray>("watchdogUsec");
        QTest::addColumn<QByteArray>("watchdogPid");
        QTest::addColumn<bool>("pings");
        QTest::addColumn<QString>("warning");

        const QByteArray usec = QByteArray::number(WatchdogUsec);
        const auto row = [](const char *tag, const QByteArray &socket, const QByteArray &watchdog,
                            const QByteArray &pid, bool pings, const QString &warning) {
            QTest::newRow(tag) << socket << watchdog << pid << pings << warning;
        };
        const QString usecIgnored = QStringLiteral("WATCHDOG_USEC is not a number of microseconds from 20000");
        const QString tooLong = QStringLiteral("NOTIFY_SOCKET is ignored: longer than the %1 bytes");
        // Placeholders: "path" and "abstract" are bound by the test, of the
        // length given; "$$" is the manager's own process number.
        row("path at the limit", "path:107", usec, {}, true, {});
        row("abstract name at the limit", "abstract:108", usec, {}, true, {});
        row("path one past", "/" + QByteArray(SunPathSize - 1, 'p'), usec, {}, false, tooLong.arg(SunPathSize - 1));
        row("abstract name one past", "@" + QByteArray(SunPathSize, 'a'), usec, {}, false, tooLong.arg(SunPathSize));
        row("relative path", "notify.sock", usec, {}, false, "NOTIFY_SOCKET is ignored: neither an absolute path nor an abstract name");
        row("bare @", "@", usec, {}, false, "NOTIFY_SOCKET is ignored: not a socket name");
        // Once, however many pings fail after it.
        row("path without a socket", "/nonexistent/notify", usec, {}, false, "Cannot notify systemd: No such file or directory");
        row("no watchdog", "path", {}, {}, false, {});
        row("watchdog at the minimum", "path", "20000", {}, true, {});
        row("watchdog below the minimum", "path", "19999", {}, false, usecIgnored);
        // 18 digits: pinged hourly, too seldom to see here.
        row("watchdog of 18 digits", "path", QByteArray(18, '9'), {}, false, {});
        row("watchdog of 19 digits", "path", QByteArray(19, '9'), {}, false, usecIgnored);
        row("watchdog of this process", "path", usec, "$$", true, {});
        row("watchdog of another process", "path", usec, "1", false, {});
        row("watchdog pid text", "path", usec, "self", false, "WATCHDOG_PID is not a process number");
    }

    // READY=1 once the port accepts connections, WATCHDOG=1 every half
    // WATCHDOG_USEC, STOPPING=1 on SIGTERM; a malformed variable costs one
    // Warning line and nothing else: the manager serves and ends as usual.
    void notifications()
    {
        QFETCH(QByteArray, notifySocket);
        QFETCH(QByteArray, watchdogUsec);
        QFETCH(QByteArray, watchdogPid);
        QFETCH(bool, pings);
        QFETCH(QString, warning);

        const bool bound = notifySocket.startsWith("path") || notifySocket.startsWith("abstract");
        if (bound)
            QVERIFY(BindPlaceholder(notifySocket));
        StartManager({{"NOTIFY_SOCKET", notifySocket}, {"WATCHDOG_USEC", watchdogUsec}, {"WATCHDOG_PID", watchdogPid}});

        QTRY_VERIFY_WITH_TIMEOUT(err.contains("Clients connect to"), 20000);
        if (bound) {
            QTRY_COMPARE(listener->IndexOf("READY=1"), 0);
            QVERIFY(Accepts(port));
            QVERIFY2(listener->messages[0].contains(":" + QByteArray::number(port) + " (TLS certificate"),
                     listener->messages[0].constData());
        }
        if (pings && watchdogUsec == QByteArray::number(WatchdogUsec)) {
            // At half the timeout, so a late ping is still in time.
            QTRY_VERIFY_WITH_TIMEOUT(listener->Count("WATCHDOG=1") >= 6, 5000);
            const qint64 mean = MeanPingInterval();
            QVERIFY2(mean >= PingMs / 2 && mean <= PingMs * 3 / 2, qPrintable(QString::number(mean)));
        } else if (pings) {
            QTRY_VERIFY(listener->Count("WATCHDOG=1") >= 3);
        } else if (bound) {
            // What a ping would have needed five times over.
            QTest::qWait(5 * PingMs);
            QCOMPARE(listener->Count("WATCHDOG=1"), 0);
        }
        QCOMPARE(::kill(pid_t(manager.processId()), SIGTERM), 0);
        QVERIFY(manager.waitForFinished(20000));
        QCOMPARE(manager.exitCode(), 0);
        if (bound)
            QTRY_VERIFY(listener->IndexOf("STOPPING=1") > 0);
        QCOMPARE(err.count(" - Warning : "), warning.isEmpty() ? 0 : 1);
        QVERIFY2(err.contains(warning.toUtf8()), err.constData());
    }

    void journalPriorities_data()
    {
        QTest::addColumn<QString>("journal");
        QTest::addColumn<bool>("prefixed");

        // "stderr" and "other" name those files; "stderr/N" pads the device
        // with zeros to N bytes, 41 being the most two 64-bit numbers take.
        QTest::newRow("stream at the length limit") << "stderr/41" << true;
        QTest::newRow("stream one past") << "stderr/42" << false;
        QTest::newRow("the journal is another file") << "other" << false;
        QTest::newRow("stream malformed") << "1:2:3" << false;
    }

    // Every line on stderr, each of a multi-line report included, begins with
    // its priority when stderr is the journal's stream, and only then. A bad
    // NOTIFY_SOCKET brings the Warning; refusalIsAnError checks an Error's.
    void journalPriorities()
    {
        QFETCH(QString, journal);
        QFETCH(bool, prefixed);

        const QString errFile = StderrToFile();
        QByteArray stream = journal.toUtf8();
        if (journal.startsWith(QLatin1String("stderr"))) {
            stream = DeviceAndInode(errFile);
            const int length = journal.section(QLatin1Char('/'), 1).toInt();
            stream.prepend(QByteArray(std::max(0, length - int(stream.size())), '0'));
        } else if (journal == QLatin1String("other")) {
            stream = DeviceAndInode(dir->filePath(QStringLiteral("TarnSrv.cfg")));
        }
        StartManager({{"JOURNAL_STREAM", stream}, {"NOTIFY_SOCKET", "relative"}});
        QTRY_VERIFY_WITH_TIMEOUT(FileBytes(errFile).contains("Clients connect to"), 20000);
        QCOMPARE(::kill(pid_t(manager.processId()), SIGTERM), 0);
        QVERIFY(manager.waitForFinished(20000));
        const QRegularExpression line(QStringLiteral("^(<\\d>)?\\d\\d\\.\\d\\d\\.\\d{4} [0-9:]{8} - (\\w+) : .*$"));
        const QHash<QString, QString> priority{{"Info", "<6>"}, {"Warning", "<4>"}};
        QSet<QString> levels;
        const QString lines = QString::fromUtf8(FileBytes(errFile));
        for (const QString &text : lines.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch match = line.match(text);
            QVERIFY2(match.hasMatch(), qPrintable(text));
            QCOMPARE(match.captured(1), prefixed ? priority.value(match.captured(2)) : QString());
            levels.insert(match.captured(2));
        }
        QCOMPARE(levels, QSet<QString>({"Info", "Warning"}));
        // The start-up report is one entry of several lines.
        QVERIFY2(lines.contains(QStringLiteral("Reading configuration file")), qPrintable(lines));
    }

    // Without a server to wait for, start-up is over once the manager has
    // said why it does not serve.
    void readyWithoutServer()
    {
        QVERIFY(WriteFile(dir->filePath(QStringLiteral("TarnSrv.cfg")),
                          "LoggingFolder = " + QFile::encodeName(dir->filePath(QStringLiteral("log"))) + '\n'));
        QByteArray name("abstract");
        QVERIFY(BindPlaceholder(name));
        StartManager({{"NOTIFY_SOCKET", name}}, {"--headless"});
        QTRY_VERIFY_WITH_TIMEOUT(!listener->messages.isEmpty(), 20000);
        QCOMPARE(listener->messages[0], QByteArray("READY=1\nSTATUS=Not serving: auto start is off."));
        QVERIFY(err.contains("The server is not running: auto start is off."));
        QCOMPARE(::kill(pid_t(manager.processId()), SIGTERM), 0);
        QVERIFY(manager.waitForFinished(20000));
        QCOMPARE(manager.exitCode(), 0);
        QTRY_COMPARE(listener->messages.last(), QByteArray("STOPPING=1\nSTATUS=Stopping."));
    }

    // A manager refused beside a running one ends the unit with an error, and
    // says so at that priority.
    void refusalIsAnError()
    {
        QProcess holder;
        holder.setProcessEnvironment(Environment({}));
        holder.start(QStringLiteral(GUARD_HOLDER_PATH), QStringList());
        const auto release = qScopeGuard([&holder] {
            holder.closeWriteChannel();
            if (!holder.waitForFinished())
                holder.kill();
        });
        QVERIFY(holder.waitForReadyRead(10000));
        QCOMPARE(holder.readLine().trimmed(), QByteArray("held"));

        const QString errFile = StderrToFile();
        StartManager({{"JOURNAL_STREAM", DeviceAndInode(errFile)}});
        QVERIFY(manager.waitForFinished(20000));
        QCOMPARE(manager.exitCode(), 1);
        const QByteArray lines = FileBytes(errFile);
        QVERIFY2(lines.split('\n').contains("<3>Another instance of VARNOK Manager is already running."), lines.constData());
    }

private:
    // "path" and "abstract" become a name the listener binds, of the length
    // after a colon when one is given.
    bool BindPlaceholder(QByteArray &name)
    {
        const int length = name.split(':').value(1).toInt();
        if (name.startsWith("path"))
            name = QFile::encodeName(dir->filePath(QStringLiteral("notify")));
        else
            name = "@tarn-notify-" + QByteArray::number(QCoreApplication::applicationPid()) + '-'
                + QByteArray::number(QRandomGenerator::global()->generate());
        // A temporary folder deeper than the whole length leaves no room.
        if (length > 0 && name.size() >= length)
            return false;
        if (length > 0)
            name = name.leftJustified(length, 'n');
        return listener->Bind(name);
    }

    // The manager's stderr, into an empty file of the test's.
    QString StderrToFile()
    {
        const QString errFile = dir->filePath(QStringLiteral("stderr"));
        WriteFile(errFile, QByteArray());
        manager.setStandardErrorFile(errFile);
        return errFile;
    }

    using Variables = QList<QPair<const char *, QByteArray>>;

    // A WATCHDOG_PID of "$$" is set by a shell that then becomes the manager.
    void StartManager(const Variables &variables, QStringList arguments = {})
    {
        if (arguments.isEmpty())
            arguments = QStringList{"--headless", "--start", "--port", QString::number(port)};
        QProcessEnvironment env = Environment(variables);
        QString program = dir->filePath(QStringLiteral("TarnSrv"));
        if (env.value(QStringLiteral("WATCHDOG_PID")) == QLatin1String("$$")) {
            arguments = QStringList{"-c", "export WATCHDOG_PID=$$; exec \"$0\" \"$@\"", program} + arguments;
            program = QStringLiteral("/bin/sh");
        }
        manager.setProcessEnvironment(env);
        manager.start(program, arguments);
        QVERIFY(manager.waitForStarted());
    }

    // The variables given, the empty ones left out, in the test's private folders.
    QProcessEnvironment Environment(const Variables &variables) const
    {
        QProcessEnvironment env = ManagerEnvironment(dir->path());
        for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"})
            env.remove(QLatin1String(name));
        for (const auto &variable : variables)
            if (!variable.second.isEmpty())
                env.insert(QLatin1String(variable.first), QString::fromLocal8Bit(variable.second));
        return env;
    }

    static bool Accepts(quint16 listening)
    {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, listening);
        return probe.waitForConnected(5000);
    }

    // The mean is what the timer asks for, whatever a loaded machine does to one ping.
    qint64 MeanPingInterval() const
    {
        const QList<qint64> &at = listener->arrivals;
        const int first = listener->IndexOf("WATCHDOG=1");
        const qint64 mean = (at.last() - at[first]) / (at.size() - 1 - first);
        qInfo("%d pings, %lld ms apart on average", int(at.size()) - first, mean);
        return mean;
    }

    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<NotifyListener> listener;
    quint16 port = 0;
    QProcess manager;
    QByteArray err;
};

QTEST_MAIN(TestSystemd)
#include "tst_systemd.moc"
