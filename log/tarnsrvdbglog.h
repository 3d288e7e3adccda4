#pragma once

#include <QElapsedTimer>
#include <QMutex>
#include <QObject>
#include <QString>

// A process-wide plain-file appender for diagnostics. The log window never
// writes through it.
class TarnSrvDbgLog : public QObject
{
    Q_OBJECT

public:
    static TarnSrvDbgLog &Instance();

    void SetFileName(const QString &name);
    void AppendToFile(const QString &text);
    QString NextSequenceNumber();
    QString ElapsedText() const;
    int FailureCount() const { return failureCount; }

    // Formats a duration as minutes:seconds:milliseconds; hours are not shown.
    static QString FormatElapsed(quint64 ms);

    static constexpr int MaxReportedFailures = 5;

private:
    TarnSrvDbgLog();
    void ReportAppendFailure();

    QString fileName;
    qint32 failureCount = 0;
    qint32 sequence = 0;
    QRecursiveMutex mutex;
    QElapsedTimer clock;
};
