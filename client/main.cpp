#include "tarntool.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tarn"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TARN_VERSION));
    return TarnTool().Run(QCoreApplication::arguments());
}
