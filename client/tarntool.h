#pragma once

#include "commandline.h"
#include "protocol.h"

#include <QCommandLineParser>
#include <QTextStream>
#include <QUrl>

class TarnClt;

// What `watch` reports between two lists: who left (in the old list's order)
// and who joined (in the new one's). Linear in the lists' lengths.
struct ClientChanges
{
    QList<ActiveClient> left;
    QList<ActiveClient> joined;
};
ClientChanges DiffClients(const QList<ActiveClient> &before, const QList<ActiveClient> &after);

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
    int CannotConnect(const QUrl &url, const TarnClt &client);
    int DiscoverOne(QUrl &url);
    QList<QUrl> DiscoverServers();
    bool FetchClients(TarnClt &client, QList<ActiveClient> &clients);
    int Fail(const QString &message, int code = Tarn::Failed);

    QCommandLineParser parser;
    QTextStream out;
    QTextStream err;
    ClientRecord identity;
};
