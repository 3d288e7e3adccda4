#include "commandline.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

namespace Tarn {

bool AnswerHelpOrVersion(const QCommandLineParser &parser, QTextStream &out)
{
    if (parser.isSet(QStringLiteral("help")))
        out << parser.helpText();
    else if (parser.isSet(QStringLiteral("version")))
        out << QCoreApplication::applicationName() << ' ' << QCoreApplication::applicationVersion() << Qt::endl;
    else
        return false;
    out.flush();
    return true;
}

} // namespace Tarn
