// What both backends of the control-manager table share: the table itself
// and the conversions between its wide strings and Qt's.

#include "scmapi.h"

#include <QProcess>

ScmFunctions &scmFunctions()
{
    static ScmFunctions table = {};
    return table;
}

QString fromWide(const WCHAR *text)
{
    return text ? QString::fromUtf16(reinterpret_cast<const char16_t *>(text)) : QString();
}

QStringList splitBinaryPath(const QString &binaryPath)
{
    const QLatin1Char quote('"');
    if (!binaryPath.startsWith(quote))
        return {binaryPath};
    const int end = binaryPath.indexOf(quote, 1);
    if (end < 0)
        return {binaryPath.mid(1)};
    return QStringList(binaryPath.mid(1, end - 1)) + QProcess::splitCommand(binaryPath.mid(end + 1));
}
