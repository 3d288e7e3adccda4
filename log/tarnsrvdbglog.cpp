#include "tarnsrvdbglog.h"

#include <QFile>
#include <QTextStream>

TarnSrvDbgLog::TarnSrvDbgLog()
{
    // Started here so elapsed times count from the first use.
    clock.start();
}

TarnSrvDbgLog &TarnSrvDbgLog::Instance()
{
    static TarnSrvDbgLog log;
    return log;
}

void TarnSrvDbgLog::SetFileName(const QString &name)
{
    fileName = name;
}

void TarnSrvDbgLog::AppendToFile(const QString &text)
{
    QFile file(fileName);
    if (!file.open(QIODevice::Append | QIODevice::Text)) {
        ReportAppendFailure();
        return;
    }
    QTextStream out(&file);
    out << text;
    out.flush();
    file.close();
}

// Failures are only counted, up to a limit; there is nowhere to report them.
void TarnSrvDbgLog::ReportAppendFailure()
{
    if (failureCount == MaxReportedFailures)
        return;
    ++failureCount;
}

QString TarnSrvDbgLog::NextSequenceNumber()
{
    return QStringLiteral("%1").arg(sequence++, 6, 10, QLatin1Char('0'));
}

QString TarnSrvDbgLog::FormatElapsed(quint64 ms)
{
    return QStringLiteral("%1:%2:%3")
        .arg((ms / 60000) % 60, 2, 10, QLatin1Char('0'))
        .arg((ms / 1000) % 60, 2, 10, QLatin1Char('0'))
        .arg(ms % 1000, 3, 10, QLatin1Char('0'));
}

QString TarnSrvDbgLog::ElapsedText() const
{
    return FormatElapsed(quint64(clock.elapsed()));
}
