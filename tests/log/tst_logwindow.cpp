#include "../testsupport.h"
#include "logwindow.h"
#include "tarnsrvdbglog.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLabel>
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

    void formatLine_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("line");

        QTest::newRow("warning") << 1u << "Busy" << "<font color=\"blue\">16.11.2026 09:05:03 - Warning : Busy</font>";
        QTest::newRow("error") << 2u << "x" << "<font color=\"red\">16.11.2026 09:05:03 - Error : x</font>";
        QTest::newRow("info") << 0u << "" << "<font color=\"black\">16.11.2026 09:05:03 - Info : </font>";
        QTest::newRow("unknown level is info") << 7u << "y" << "<font color=\"black\">16.11.2026 09:05:03 - Info : y</font>";
        QTest::newRow("placeholders and markup stay literal")
            << 0u << "%1 %2 %4 %9 %L1 <b>bold</b> & co"
            << "<font color=\"black\">16.11.2026 09:05:03 - Info : %1 %2 %4 %9 %L1 <b>bold</b> & co</font>";
    }

    void formatLine()
    {
        QFETCH(quint32, type);
        QFETCH(QString, text);
        QFETCH(QString, line);
        QCOMPARE(LogSink::FormatLine(type, QStringLiteral("16.11.2026 09:05:03"), text), line);
    }

    void logSplitsIntoStampedLines_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("parts");

        QTest::newRow("empty") << "" << QStringList{""};
        QTest::newRow("trailing break") << "a\n" << QStringList{"a", ""};
        QTest::newRow("leading break") << "\nb" << QStringList{"", "b"};
        QTest::newRow("two lines and a break") << "a\nb\n" << QStringList{"a", "b", ""};
        QTest::newRow("percent signs") << "%1\n%4" << QStringList{"%1", "%4"};
    }

    // The whole file must be exactly one stamped Error line per part.
    void logSplitsIntoStampedLines()
    {
        QFETCH(QString, text);
        QFETCH(QStringList, parts);

        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
        window.Log(text, 2);

        QString pattern;
        for (const QString &part : parts)
            pattern += QStringLiteral("<font color=\"red\">%1 - Error : %2</font><br>").arg(Stamp, part);
        const QByteArray bytes = FileBytes(LogPath());
        QVERIFY(bytes.startsWith(Bom));
        const QString content = QString::fromUtf8(bytes.mid(Bom.size()));
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(content).hasMatch(),
                 qPrintable(content));
        QCOMPARE(View(window)->blockCount(), parts.size());
    }

    void fileIsUtf8AndAppended()
    {
        LogWindow first;
        first.Sink().SetLogFile(true, dir.path());
        first.Log(QStringLiteral("plain"), 0);
        const QByteArray afterFirst = FileBytes(LogPath());

        // A second writer appends, with no second byte-order mark.
        LogWindow second;
        second.Sink().SetLogFile(true, dir.path());
        second.Log(QStringLiteral("Zoë <i>"), 1);
        const QByteArray bytes = FileBytes(LogPath());
        QVERIFY(afterFirst.startsWith(Bom));
        QVERIFY(afterFirst.endsWith("Info : plain</font><br>"));
        QVERIFY(bytes.startsWith(afterFirst));
        const QByteArray added = bytes.mid(afterFirst.size());
        QVERIFY(!added.contains(Bom));
        QVERIFY(!bytes.contains('\n'));
        QVERIFY(added.endsWith(QByteArray("Warning : Zo\xC3\xAB <i></font><br>")));

        // Switched off, the file stays as it is.
        second.Sink().SetLogFile(false, dir.path());
        second.Log(QStringLiteral("view only"), 0);
        QCOMPARE(FileBytes(LogPath()), bytes);
        QCOMPARE(View(second)->blockCount(), 2);
    }

    void writeFailureWarnsOnce_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("error");

        QTest::newRow("missing folder") << "missing/folder" << "No such file or directory";
        QTest::newRow("folder is a file") << "plain.txt" << "Not a directory";
        QTest::newRow("log file is a folder") << "blocked" << "Is a directory";
        QTest::newRow("disk full") << "full" << "No space left on device";
    }

    // The lines stay in the view, with one warning however many lines fail.
    void writeFailureWarnsOnce()
    {
        QFETCH(QString, folder);
        QFETCH(QString, error);

        QVERIFY(QFile(dir.filePath(QStringLiteral("plain.txt"))).open(QIODevice::WriteOnly));
        QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("blocked/TarnSrvSvc.html")));
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

    void startKeepsPreviousRuns_data()
    {
        QTest::addColumn<int>("runs");

        QTest::newRow("first run") << 1;
        QTest::newRow("second run") << 2;
        QTest::newRow("oldest dropped") << LogSink::LogGenerations + 3;
    }

    // Each run rotates before its first line, as start-up does.
    void startKeepsPreviousRuns()
    {
        QFETCH(int, runs);

        for (int run = 1; run <= runs; ++run) {
            LogWindow window;
            window.Sink().SetLogFile(true, dir.path());
            window.Sink().RotateLogFiles();
            window.Log(QStringLiteral("run %1").arg(run), 0);
        }
        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
        for (int generation = 0; generation <= LogSink::LogGenerations + 1; ++generation) {
            const int run = runs - generation;
            const bool kept = run > 0 && generation <= LogSink::LogGenerations;
            QCOMPARE(FileMessages(window.Sink().LogFilePath(generation)),
                     kept ? QStringList{QStringLiteral("run %1").arg(run)} : QStringList());
            QCOMPARE(QFile::exists(window.Sink().LogFilePath(generation)), kept);
        }
    }

    void rotatesAtSizeLimit_data()
    {
        QTest::addColumn<int>("textLength");

        QTest::newRow("several lines a file") << 10;
        QTest::newRow("lines longer than the limit") << 400;
    }

    // The newest lines survive, in order, in files within the limit unless one line alone exceeds it.
    void rotatesAtSizeLimit()
    {
        QFETCH(int, textLength);
        const qint64 limit = 300;
        const int count = 60;

        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
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
        QVERIFY(view->document()->lastBlock().text().endsWith(QStringLiteral("Info : %1").arg(LogWindow::MaxViewLines)));
    }

    void logFilePath_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("path");

        QTest::newRow("plain") << "C:/logs" << "C:/logs/TarnSrvSvc.html";
        QTest::newRow("trailing slash kept") << "C:/logs/" << "C:/logs//TarnSrvSvc.html";
        QTest::newRow("empty folder is the root") << "" << "/TarnSrvSvc.html";
        QTest::newRow("placeholder in folder") << "/tmp/%1" << "/tmp/%1/TarnSrvSvc.html";
    }

    void logFilePath()
    {
        QFETCH(QString, folder);
        QFETCH(QString, path);

        LogWindow window;
        QCOMPARE(window.Sink().LogFilePath(), QCoreApplication::applicationDirPath() + QStringLiteral("/TarnSrvSvc.html"));
        window.Sink().SetLogFile(false, folder);
        QCOMPARE(window.Sink().LogFilePath(), path);
    }

    // The view is read-only; its menu clears it and leaves the file.
    void clearAllLeavesFile()
    {
        LogWindow window;
        window.Sink().SetLogFile(true, dir.path());
        window.Log(QStringLiteral("one\ntwo"), 0);
        const QByteArray before = FileBytes(LogPath());
        QPlainTextEdit *view = View(window);
        const QString shown = view->toPlainText();
        QTest::keyClicks(view, QStringLiteral("typed"));
        QTest::keyClick(view, Qt::Key_Backspace);
        QCOMPARE(view->toPlainText(), shown);
        QCOMPARE(window.sizeHint(), QSize(500, 400));
        QCOMPARE(window.windowTitle(), QStringLiteral("Log Window"));
        QCOMPARE(window.findChild<QLabel *>(QStringLiteral("title_label"))->text(), QStringLiteral("Log Window"));

        QStringList entries;
        QTimer::singleShot(10, &window, [&] {
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
        QCOMPARE(FileBytes(LogPath()), before);
    }

    void messageBoxPerLevel_data()
    {
        QTest::addColumn<quint32>("type");
        QTest::addColumn<int>("icon");

        QTest::newRow("info") << 0u << int(QMessageBox::Information);
        QTest::newRow("warning") << 1u << int(QMessageBox::Warning);
        QTest::newRow("error") << 2u << int(QMessageBox::Critical);
        QTest::newRow("other level") << 7u << int(QMessageBox::Information);
    }

    void messageBoxPerLevel()
    {
        QFETCH(quint32, type);
        QFETCH(int, icon);

        LogWindow window;
        window.Sink().SetLogFile(false, dir.path());
        QString title, text;
        int shownIcon = -1;
        int buttons = 0;
        QTimer::singleShot(10, &window, [&] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            if (!box)
                return;
            title = box->windowTitle();
            text = box->text();
            shownIcon = box->icon();
            buttons = box->buttons().size();
            box->button(QMessageBox::Ok)->click();
        });
        window.Log(QStringLiteral("first\nsecond"), type, true);
        QCOMPARE(title, QStringLiteral("VARNOK Manager"));
        QCOMPARE(text, QStringLiteral("first\nsecond"));
        QCOMPARE(shownIcon, icon);
        QCOMPARE(buttons, 1);
        QCOMPARE(View(window)->blockCount(), 2);
    }

    void debugLogFormats_data()
    {
        QTest::addColumn<quint64>("ms");
        QTest::addColumn<QString>("text");

        QTest::newRow("zero") << quint64(0) << "00:00:000";
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
