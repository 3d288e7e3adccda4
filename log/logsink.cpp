#include "logsink.h"

#include "datafolders.h"
#include "journalstream.h"
#include "loglevel.h"
#include "printable.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

namespace {

QString LevelName(quint32 type)
{
    switch (type) {
    case LogLevel::Warning: return QStringLiteral("Warning");
    case LogLevel::Error: return QStringLiteral("Error");
    default: return QStringLiteral("Info");
    }
}

QString LevelColor(quint32 type)
{
    switch (type) {
    case LogLevel::Warning: return QStringLiteral("blue");
    case LogLevel::Error: return QStringLiteral("red");
    default: return QStringLiteral("black");
    }
}

// syslog's priorities, which the journal reads from the start of a line.
QByteArray JournalPriority(quint32 type)
{
    switch (type) {
    case LogLevel::Warning: return QByteArrayLiteral("<4>");
    case LogLevel::Error: return QByteArrayLiteral("<3>");
    default: return QByteArrayLiteral("<6>");
    }
}

QString Now()
{
    return QDateTime::currentDateTime().toString(QStringLiteral("dd.MM.yyyy HH:mm:ss"));
}

} // namespace

LogSink::LogSink(QObject *parent)
    : QObject(parent)
    , logFolder(DefaultFolder())
{
}

void LogSink::SetLogFile(bool enable, const QString &folder)
{
    logToFile = enable;
    defaultFolder = folder.isEmpty();
    logFolder = defaultFolder ? DefaultFolder() : folder;
}

// Not beside the program: that folder is the installer's, often read-only,
// and shared by every user of the machine.
QString LogSink::DefaultFolder()
{
    for (const char *variable : {"LOGS_DIRECTORY", "STATE_DIRECTORY"}) {
        const QString folder = Tarn::UnitDirectory(variable);
        if (!folder.isEmpty())
            return folder;
    }
    return Tarn::UserDataFolder();
}

void LogSink::SetMaxFileSize(qint64 bytes)
{
    maxFileSize = bytes;
}

void LogSink::SetHeadless(bool enable)
{
    headless = enable;
}

void LogSink::RotateLogFiles()
{
    if (!QFileInfo(LogFilePath()).isFile())
        return;
    QFile::remove(LogFilePath(LogGenerations));
    for (int n = LogGenerations; n > 0; --n)
        QFile::rename(LogFilePath(n - 1), LogFilePath(n));
    // A file that could not be moved is dropped rather than left to grow.
    QFile::remove(LogFilePath());
}

QString LogSink::LogFilePath(int generation) const
{
    if (generation == 0)
        return QStringLiteral("%1/TarnSrvSvc.html").arg(logFolder);
    return QStringLiteral("%1/TarnSrvSvc.%2.html").arg(logFolder, QString::number(generation));
}

QByteArray LogSink::StderrPrefix(quint32 type)
{
    // Where stderr goes does not change while the program runs.
    static const bool journal = Journal::StderrIsJournal();
    return journal ? JournalPriority(type) : QByteArray();
}

QString LogSink::FormatLine(quint32 type, const QString &stamp, const QString &text)
{
    // One placeholder at a time, the message last, so "%1" inside it stays literal.
    return QStringLiteral("<font color=\"%1\">%2 - %3 : %4</font>")
        .arg(LevelColor(type))
        .arg(stamp)
        .arg(LevelName(type))
        .arg(text);
}

void LogSink::Log(const QString &text, quint32 type, bool msgBox)
{
    const QStringList parts = text.split(QLatin1Char('\n'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    for (const QString &part : parts) {
        const QString stamp = Now();
        if (headless)
            Show(type, stamp, part);
        AppendPlainHtml(FormatLine(type, stamp, part));
    }
    if (msgBox && !headless)
        emit MessageRequested(text, type);
}

// A line of the log's own, shown where the lines go: the view, or stderr as
// plain text without the empty lines that space out the view.
void LogSink::Show(quint32 type, const QString &stamp, const QString &text)
{
    if (!headless) {
        emit Shown(FormatLine(type, stamp, text.toHtmlEscaped()));
        return;
    }
    if (text.isEmpty())
        return;
    // Guest names come from any client: a control character could act on a
    // terminal or, as a NUL, end the journal's line and begin a forged one.
    const QByteArray line = StderrPrefix(type)
        + QStringLiteral("%1 - %2 : %3\n").arg(stamp, LevelName(type), Tarn::Printable(text)).toUtf8();
    std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    // Windows' C runtime buffers stderr when it is a file or a pipe, and a
    // headless log is read as it grows.
    std::fflush(stderr);
}

void LogSink::AppendPlainHtml(const QString &html)
{
    if (!headless)
        emit Shown(html);
    if (logToFile)
        AppendToFile(html);
}

// A failure shows once, and again only after a line has got through.
void LogSink::AppendToFile(const QString &html)
{
    QString error;
    const bool written = WriteToFile(html, error);
    if (!written && !fileFailing) {
        const QString text = QStringLiteral("Cannot write the log file %1: %2.").arg(LogFilePath(), error);
        Show(LogLevel::Warning, Now(), text);
    }
    fileFailing = !written;
}

// Opened and closed per line; a missing folder is made only when it is the default.
bool LogSink::WriteToFile(const QString &html, QString &error)
{
    if (defaultFolder)
        QDir().mkpath(logFolder);
    QByteArray bytes = (html + QLatin1String("<br>")).toUtf8();
    QFile file(LogFilePath());
    const qint64 size = file.size();
    if (size > 0 && size + bytes.size() > maxFileSize)
        RotateLogFiles();
    if (!file.open(QIODevice::Append | QIODevice::Text)) {
        error = file.errorString();
        return false;
    }
    // Guest names need not be ASCII: UTF-8, marked for browsers when a file begins.
    if (file.size() == 0)
        bytes.prepend("\xEF\xBB\xBF");
    if (file.write(bytes) != bytes.size() || !file.flush()) {
        error = file.errorString();
        return false;
    }
    return true;
}
