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
    explicit LogWindow(QWidget *parent = nullptr);
    ~LogWindow() override;

    QSize sizeHint() const override;

    void SetLogFile(bool enable, const QString &folder);
    void RemoveLogFile();
    QString LogFilePath() const;

    // One formatted line as the sink builds it; exposed for its exact layout.
    static QString FormatLine(quint32 type, const QString &stamp, const QString &text);

public slots:
    void Log(const QString &text, quint32 type, bool msgBox = false);
    void AppendPlainHtml(const QString &html);

private slots:
    void ShowContextMenu(const QPoint &pos);
    void ClearAll();

private:
    void AppendToFile(const QString &html) const;
    void ShowMessageBox(const QString &text, quint32 type);

    Ui::LogWindow *ui;
    bool logToFile = true;
    QString logFolder;
};
