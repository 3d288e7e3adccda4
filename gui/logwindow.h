#pragma once

#include "logsink.h"

#include <QWidget>

namespace Ui {
class LogWindow;
}

// The log's view: a read-only list of the coloured, time-stamped lines its
// sink writes to the HTML file.
class LogWindow : public QWidget
{
    Q_OBJECT

public:
    // The view holds at most MaxViewLines; when full, the oldest ViewTrimLines go.
    static constexpr int MaxViewLines = 10000;
    static constexpr int ViewTrimLines = 1000;

    explicit LogWindow(QWidget *parent = nullptr);
    ~LogWindow() override;

    QSize sizeHint() const override;

    // The file, rotation and headless output behind the view.
    LogSink &Sink() { return sink; }

public slots:
    void Log(const QString &text, quint32 type, bool msgBox = false);

private slots:
    void AppendToView(const QString &html);
    void ShowMessageBox(const QString &text, quint32 type);
    void ShowContextMenu(const QPoint &pos);
    void ClearAll();

private:
    Ui::LogWindow *ui;
    LogSink sink;
};
