#pragma once

#include "commandline.h"
#include "protocol.h"

#include <QCommandLineParser>
#include <QTextStream>
#include <QUrl>

class TarnClt;

// The `tarn` command line: discover, ping, clients and watch.
class TarnTool
{
public:
    TarnTool();
    // Parses the arguments (program name first) and runs the command; returns the exit code.
    int Run(const QStringList &arguments);

    // discover waits this long in all for the servers' certificates.
    static constexpr int ProbeTimeoutMs = 3000;

private:
    int Discover();
    int PingCommand();
    int ClientsCommand();
    int WatchCommand();

    bool ParseIdentity();
    // Opens the connection to the URL argument, or to the one server that a
    // discovery finds; returns Ok or the exit code after reporting the failure.
    int Connect(TarnClt &client, QUrl &url);
    int OpenKnown(TarnClt &client, const QUrl &url);
    void ShowFingerprints(const QString &recorded, const QString &presented);
    int CannotConnect(const QUrl &url);
    int DiscoverOne(QUrl &url);
    QList<QUrl> DiscoverServers();
    bool FetchClients(TarnClt &client, QList<ActiveClient> &clients);
    int Fail(const QString &message, int code = Tarn::Failed);

    QCommandLineParser parser;
    QTextStream out;
    QTextStream err;
    ClientRecord identity;
};
