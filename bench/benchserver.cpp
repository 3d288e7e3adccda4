// tarn-bench-server: the session server without its window, for benchmarks.
// Prints "PORT <n>" once listening and runs until terminated.

#include "descriptorlimit.h"
#include "loaddriver.h"
#include "scalableeventloop.h"
#include "tarnsrv.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char *argv[])
{
    Tarn::RaiseDescriptorLimit();
    Tarn::UseScalableEventLoop();
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int port = args.value(1, QStringLiteral("0")).toInt();
    const bool verbose = args.contains(QStringLiteral("--log"));

    TarnSrv server;
    // The manager sends these lines to its log window; here they go nowhere
    // unless asked for, like the peer server, which logs nothing.
    QObject::connect(&server, &TarnSrv::Log, [verbose](const QString &text, quint32, bool) {
        if (verbose)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    if (server.Start(port) != 0)
        return 1;
    std::printf("PORT %u\n", unsigned(server.ListeningPort()));
    std::fflush(stdout);
    return app.exec();
}
