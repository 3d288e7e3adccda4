#pragma once

#include <QObject>

// Where the manager's log lines go, with or without a window: coloured,
// time-stamped HTML lines appended to a file that is rotated by size, and,
// headless, plain lines on stderr (each with its priority for systemd's
// journal when that reads it). A view (LogWindow) shows what it is
// handed through Shown and answers MessageRequested.
class LogSink : public QObject
{
    Q_OBJECT

public:
    // The file is rotated at this size; with its numbered generations the log
    // never takes more than (LogGenerations + 1) x the size on disk.
    static constexpr qint64 DefaultMaxFileSize = 4 * 1024 * 1024;
    static constexpr int LogGenerations = 5;

    explicit LogSink(QObject *parent = nullptr);

    // An empty folder means DefaultFolder().
    void SetLogFile(bool enable, const QString &folder);
    // Under systemd the unit's logs directory (its state directory when it
    // names none), else the user's data folder, made when missing.
    static QString DefaultFolder();
    void SetMaxFileSize(qint64 bytes);
    // Without a window the lines go to stderr as plain text instead of to a
    // view, and nothing waits for a message box to be answered.
    void SetHeadless(bool enable);
    // Moves the current file to generation 1, 1 to 2 and so on, dropping the
    // oldest; the next line begins a new file.
    void RotateLogFiles();
    // Generation 0 is the current file.
    QString LogFilePath(int generation = 0) const;

    // What begins each line on stderr: its priority when the journal reads
    // stderr, so that journalctl -p tells warnings and errors; else nothing.
    static QByteArray StderrPrefix(quint32 type);
    // One formatted line as the sink builds it; exposed for its exact layout.
    static QString FormatLine(quint32 type, const QString &stamp, const QString &text);

public slots:
    void Log(const QString &text, quint32 type, bool msgBox = false);
    void AppendPlainHtml(const QString &html);

signals:
    // A line for the view, as HTML; never emitted headless.
    void Shown(const QString &html);
    // A text the operator should confirm; never emitted headless.
    void MessageRequested(const QString &text, quint32 type);

private:
    void Show(quint32 type, const QString &stamp, const QString &text);
    void AppendToFile(const QString &html);
    bool WriteToFile(const QString &html, QString &error);

    bool logToFile = true;
    QString logFolder;
    bool defaultFolder = true;
    qint64 maxFileSize = DefaultMaxFileSize;
    bool fileFailing = false;
    bool headless = false;
};
