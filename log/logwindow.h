#pragma once

#include <QWidget>

namespace Ui {
class LogWindow;
}

// The log: a read-only view of coloured, time-stamped lines that are also
// appended to an HTML file.
class LogWindow : public QWidget
{
    Q_OBJECT

public:
    // The view holds at most MaxViewLines; when full, the oldest ViewTrimLines go.
    static constexpr int MaxViewLines = 10000;
    static constexpr int ViewTrimLines = 1000;
    // The file is rotated at this size; with its numbered generations the log
    // never takes more than (LogGenerations + 1) x the size on disk.
    static constexpr qint64 DefaultMaxFileSize = 4 * 1024 * 1024;
    static constexpr int LogGenerations = 5;

    explicit LogWindow(QWidget *parent = nullptr);
    ~LogWindow() override;

    QSize sizeHint() const override;

    void SetLogFile(bool enable, const QString &folder);
    void SetMaxFileSize(qint64 bytes);
    // Without a window the lines go to stderr as plain text instead of the
    // view, and nothing waits for a message box to be answered.
    void SetHeadless(bool enable);
    // Moves the current file to generation 1, 1 to 2 and so on, dropping the
    // oldest; the next line begins a new file.
    void RotateLogFiles();
    // Generation 0 is the current file.
    QString LogFilePath(int generation = 0) const;

    // One formatted line as the sink builds it; exposed for its exact layout.
    static QString FormatLine(quint32 type, const QString &stamp, const QString &text);

public slots:
    void Log(const QString &text, quint32 type, bool msgBox = false);
    void AppendPlainHtml(const QString &html);

private slots:
    void ShowContextMenu(const QPoint &pos);
    void ClearAll();

private:
    void Show(quint32 type, const QString &stamp, const QString &text);
    void AppendToView(const QString &html);
    void AppendToFile(const QString &html);
    bool WriteToFile(const QString &html, QString &error);
    void ShowMessageBox(const QString &text, quint32 type);

    Ui::LogWindow *ui;
    bool logToFile = true;
    QString logFolder;
    qint64 maxFileSize = DefaultMaxFileSize;
    bool fileFailing = false;
    bool headless = false;
};
