#include "../testsupport.h"
#include "logwindow.h"
#include "tarnsrvdbglog.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QtTest>

using namespace testsupport;

namespace {
const QString Stamp = QStringLiteral("\\d\\d\\.\\d\\d\\.\\d{4} \\d\\d:\\d\\d:\\d\\d");
const QByteArray Bom("\xEF\xBB\xBF");

QPlainTextEdit *View(LogWindow &w)
{
    return w.findChild<QPlainTextEdit *>();
}

// The message parts of a log file's lines; a file that does not begin with its mark gives none.
QStringList FileMessages(const QString &path)
{
    const QByteArray bytes = FileBytes(path);
    if (!bytes.startsWith(Bom))
        return {};
    static const QRegularExpression prefix(QStringLiteral("^<font color=\"\\w+\">") + Stamp + " - \\w+ : ");
    QStringList lines = QString::fromUtf8(bytes.mid(Bom.size())).split(QStringLiteral("<br>"));
    lines.removeLast();
    for (QString &line : lines)
        line.remove(prefix).chop(int(qstrlen("</font>")));
    return lines;
}
} // namespace

class TestLogWindow : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(QDir(dir.path()).removeRecursively());
        QVERIFY(QDir().mkpath(dir.path()));
    }

    void levels_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("icon");

        const QString line = QStringLiteral("<font color=\"%1\">16.11.2026 09:05:03 - %2 : %3</font>");
        QTest::newRow("warning") << 1u << "Busy" << line.arg("blue", "Warning", "Busy") << int(QMessageBox::Warning);
        QTest::newRow("error") << 2u << "x" << line.arg("red", "Error", "x") << int(QMessageBox::Critical);
        // Placeholders and markup stay literal.
        const QString literal = QStringLiteral("%1 %2 %4 %9 %L1 <b>bold</b> & co");
        QTest::newRow("info") << 0u << literal << line.arg("black", "Info", literal) << int(QMessageBox::Information);
    }

    // Each level's line, and the box in which the operator confirms a text.
    void levels()
    {
        QFETCH(quint32, type);
        QFETCH(QString, text);
        QFETCH(QString, line);
        QFETCH(int, icon);
        QCOMPARE(LogSink::FormatLine(type, QStringLiteral("16.11.2026 09:05:03"), text), line);

        LogWindow window;
        window.Sink().SetLogFile(false, dir.path());
        QString shown;
        QTimer::singleShot(10, &window, [&] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            shown = QStringLiteral("%1|%2|%3|%4")
                        .arg(box->windowTitle(), box->text(), QString::number(box->icon()),
                             QString::number(box->buttons().size()));
            box->button(QMessageBox::Ok)->click();
        });
        window.Log(text + QStringLiteral("\nsecond"), type, true);
        QCOMPARE(shown, QStringLiteral("VARNOK Manager|%1\nsecond|%2|1").arg(text, QString::number(icon)));
        QCOMPARE(View(window)->blockCount(), 2);
    }

    // Each part of a text is one stamped line. A second writer appends in
    // UTF-8, with no second byte-order mark and no line break of the file's own.
    void fileHoldsOneLinePerPart()
    {
        LogWindow first;
        first.Sink().SetLogFile(true, dir.path());
        first.Log(QString(), 0);
        LogWindow second;
        second.Sink().SetLogFile(true, dir.path());
        second.Log(QStringLiteral("\nZoë <i>\n"), 2);

        const QString error = QStringLiteral("<font color=\"red\">%1 - Error : %2</font><br>");
        const QString pattern = QStringLiteral("<font color=\"black\">%1 - Info : </font><br>").arg(Stamp)
                                + error.arg(Stamp, QString()) + error.arg(Stamp, QStringLiteral("Zoë <i>"))
                                + error.arg(Stamp, QString());
        const QByteArray bytes = FileBytes(LogPath());
        QVERIFY(bytes.startsWith(Bom));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(pattern))
                     .match(QString::fromUtf8(bytes.mid(Bom.size())))
                     .hasMatch(),
                 bytes.constData());
        QPlainTextEdit *view = View(second);
        QCOMPARE(view->blockCount(), 3);

        // The view is read-only; its menu clears it, not the file.
        const QString shown = view->toPlainText();
        QTest::keyClicks(view, QStringLiteral("typed"));
        QTest::keyClick(view, Qt::Key_Backspace);
        QCOMPARE(view->toPlainText(), shown);
        QStringList entries;
        QTimer::singleShot(10, &second, [&] {
            auto *menu = qobject_cast<QMenu *>(QApplication::activePopupWidget());
            if (!menu)
                return;
            const QList<QAction *> actions = menu->actions();
            for (QAction *action : actions)
                entries.append(action->isSeparator() ? QStringLiteral("|") : action->text());
            actions.last()->trigger();
            menu->close();
        });
        emit view->customContextMenuRequested(QPoint(5, 5));
        QVERIFY(entries.size() > 2); // the standard entries come first
        QCOMPARE(entries.mid(entries.size() - 2), QStringList({"|", "Clear All"}));
        QVERIFY(view->toPlainText().isEmpty());
        QVERIFY(!view->document()->isUndoAvailable());
        QCOMPARE(FileBytes(LogPath()), bytes);

        // Switched off, the file stays as it is.
        second.Sink().SetLogFile(false, dir.path());
        second.Log(QStringLiteral("view only"), 0);
        QCOMPARE(FileBytes(LogPath()), bytes);
        QCOMPARE(view->blockCount(), 1);
    }

    void writeFailureWarnsOnce_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("error");

        // Opening fails, or writing does.
        QTest::newRow("missing folder") << "missing" << "No such file or directory";
        QTest::newRow("disk full") << "full" << "No space left on device";
    }

    // The lines stay in the view, with one warning however many lines fail.
    void writeFailureWarnsOnce()
    {
        QFETCH(QString, folder);
        QFETCH(QString, error);

        QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("full")));
        if (folder == QLatin1String("full")
            && !QFile::link(QStringLiteral("/dev/full"), dir.filePath(QStringLiteral("full/TarnSrvSvc.html"))))
            QSKIP("no /dev/full to fill");

        LogWindow window;
        window.Sink().SetLogFile(true, dir.filePath(folder));
        window.Log(QStringLiteral("one"), 0);
        window.Log(QStringLiteral("two\nthree"), 1);

        const QStringList lines = View(window)->toPlainText().split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 4);
        QCOMPARE(lines.filter(QStringLiteral(" - Warning : Cannot write the log file ")), QStringList{lines.at(1)});
        QVERIFY2(lines.at(1).endsWith(window.Sink().LogFilePath() + QStringLiteral(": ") + error + QLatin1Char('.')),
                 qPrintable(lines.at(1)));
        QVERIFY(lines.at(3).endsWith(QStringLiteral("Warning : three")));
        QVERIFY(!QFileInfo(window.Sink().LogFilePath()).isFile());
    }

    void rotatesAtSizeLimit_data()
    {
        QTest::addColumn<int>("textLength");

        QTest::newRow("several lines a file") << 10;
        QTest::newRow("lines longer than the limit") << 400;
    }

    // The newest lines survive, in order, in files within the limit unless one
    // line alone exceeds it; the oldest generation goes. A placeholder in the
    // folder stays literal in every generation's name.
    void rotatesAtSizeLimit()
    {
        QFETCH(int, textLength);
        const qint64 limit = 300;
        const int count = 60;
        const QString folder = dir.filePath(QStringLiteral("%1"));
        QVERIFY(QDir().mkpath(folder));

        LogWindow window;
        window.Sink().SetLogFile(true, folder);
        window.Sink().SetMaxFileSize(limit);
        for (int i = 0; i < count; ++i)
            window.Log(QStringLiteral("%1").arg(i, textLength, 10, QLatin1Char('0')), 0);

        QStringList kept;
        for (int generation = LogSink::LogGenerations; generation >= 0; --generation) {
            const QString path = window.Sink().LogFilePath(generation);
            const QStringList lines = FileMessages(path);
            QVERIFY2(!lines.isEmpty(), qPrintable(path));
            QVERIFY(QFileInfo(path).size() <= limit || lines.size() == 1);
            kept += lines;
        }
        QVERIFY(!QFile::exists(window.Sink().LogFilePath(LogSink::LogGenerations + 1)));
        for (int i = 0; i < kept.size(); ++i)
            QCOMPARE(kept.at(i).toInt(), count - kept.size() + i);
    }

    void defaultFolder_data()
    {
        QTest::addColumn<QByteArray>("logs"); // LOGS_DIRECTORY
        QTest::addColumn<QByteArray>("state"); // STATE_DIRECTORY
        QTest::addColumn<QString>("folder"); // DATA: the test's XDG_DATA_HOME

        QTest::newRow("user data") << QByteArray() << QByteArray() << "DATA/VARNOK Labs/VARNOK Manager";
        QTest::newRow("unit state") << QByteArray() << QByteArray("/var/lib/tarn:/var/lib/other") << "/var/lib/tarn";
        QTest::newRow("unit logs first") << QByteArray("/var/log/tarn") << QByteArray("/var/lib/tarn")
                                         << "/var/log/tarn";
    }

    // Without a configured folder (none, or an empty one) the log goes where
    // the platform keeps the manager's data, never beside the program; the
    // user's folder is made on the first line.
    void defaultFolder()
    {
        QFETCH(QByteArray, logs);
        QFETCH(QByteArray, state);
        QFETCH(QString, folder);
        const QByteArray data = QFile::encodeName(dir.filePath(QStringLiteral("data")));
        const auto restore = qScopeGuard([saved = QList<QByteArray>{qgetenv("LOGS_DIRECTORY"), qgetenv("STATE_DIRECTORY"),
                                                                     qgetenv("XDG_DATA_HOME")}] {
            qputenv("LOGS_DIRECTORY", saved.at(0));
            qputenv("STATE_DIRECTORY", saved.at(1));
            qputenv("XDG_DATA_HOME", saved.at(2));
        });
        qputenv("LOGS_DIRECTORY", logs);
        qputenv("STATE_DIRECTORY", state);
        qputenv("XDG_DATA_HOME", data);
        folder.replace(QStringLiteral("DATA"), QFile::decodeName(data));

        LogSink sink;
        QCOMPARE(sink.LogFilePath(), folder + "/TarnSrvSvc.html");
        sink.SetLogFile(true, dir.path());
        sink.SetLogFile(true, QString());
        QCOMPARE(sink.LogFilePath(), folder + "/TarnSrvSvc.html");
        if (logs.isEmpty() && state.isEmpty()) {
            sink.Log(QStringLiteral("first"), 0);
            QCOMPARE(FileMessages(sink.LogFilePath()), QStringList{QStringLiteral("first")});
        }
    }

    void viewKeepsNewestLines()
    {
        LogWindow window;
        window.Sink().SetLogFile(false, dir.path());
        QPlainTextEdit *view = View(window);
        for (int i = 0; i < LogWindow::MaxViewLines; ++i)
            window.Log(QString::number(i), 0);
        QCOMPARE(view->blockCount(), LogWindow::MaxViewLines);

        window.Log(QString::number(LogWindow::MaxViewLines), 0);
        QCOMPARE(view->blockCount(), LogWindow::MaxViewLines - LogWindow::ViewTrimLines);
        QVERIFY(view->document()->firstBlock().text().endsWith(
            QStringLiteral("Info : %1").arg(LogWindow::ViewTrimLines + 1)));
    }

    void debugLogFormats_data()
    {
        QTest::addColumn<quint64>("ms");
        QTest::addColumn<QString>("text");

        QTest::newRow("hours dropped") << quint64(3725042) << "02:05:042";
        QTest::newRow("just under an hour") << quint64(3599999) << "59:59:999";
        QTest::newRow("beyond 32 bits") << quint64(0x100000000ULL) << "02:47:296";
    }

    void debugLogFormats()
    {
        QFETCH(quint64, ms);
        QFETCH(QString, text);
        QCOMPARE(TarnSrvDbgLog::FormatElapsed(ms), text);
    }

    void debugLogCountsFailures()
    {
        TarnSrvDbgLog &log = TarnSrvDbgLog::Instance();
        QCOMPARE(log.NextSequenceNumber(), QStringLiteral("000000"));
        QCOMPARE(log.NextSequenceNumber(), QStringLiteral("000001"));
        QVERIFY(QRegularExpression(QStringLiteral("^\\d\\d:\\d\\d:\\d{3}$")).match(log.ElapsedText()).hasMatch());

        log.SetFileName(dir.filePath(QStringLiteral("missing/dbg.txt")));
        for (int i = 0; i < 8; ++i)
            log.AppendToFile(QStringLiteral("x"));
        QCOMPARE(log.FailureCount(), TarnSrvDbgLog::MaxReportedFailures);

        log.SetFileName(dir.filePath(QStringLiteral("dbg.txt")));
        log.AppendToFile(QStringLiteral("a"));
        log.AppendToFile(QStringLiteral("b\n"));
        QCOMPARE(FileBytes(dir.filePath(QStringLiteral("dbg.txt"))), QByteArray("ab\n"));
    }

private:
    QString LogPath() const { return dir.filePath(QStringLiteral("TarnSrvSvc.html")); }

    QTemporaryDir dir;
};

QTEST_MAIN(TestLogWindow)
#include "tst_logwindow.moc"
