#include "tarntool.h"

#include "commandline.h"
#include "fingerprintprobe.h"
#include "knownservers.h"
#include "printable.h"
#include "srvurldetect.h"
#include "tarnclt.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QTimer>

using namespace Tarn;

namespace {

const QString Commands = QStringLiteral(
    "Commands:\n"
    "  discover       list the servers that answer a discovery broadcast, each with\n"
    "                 its certificate's SHA-256 fingerprint and whether it is known,\n"
    "                 new or CHANGED\n"
    "  ping [URL]     measure the round trip of one ping\n"
    "  clients [URL]  list the active clients\n"
    "  watch [URL]    print clients as they join and leave, until interrupted\n"
    "Without a URL, a command discovers the server first.\n\n"
    "The first connection to a server records its certificate's fingerprint in\n"
    "%1;\n"
    "later connections refuse a server that presents another certificate.");

const QString AcceptNewKey = QStringLiteral("accept-new-key");
const QString Insecure = QStringLiteral("insecure");

QString LoginName()
{
    for (const char *var : {"USER", "LOGNAME", "USERNAME"}) {
        const QString name = qEnvironmentVariable(var);
        if (!name.isEmpty())
            return name;
    }
    return QStringLiteral("tarn");
}

// QJsonDocument escapes only what JSON requires (below U+0020); the rest of the
// unsafe characters get the \u escapes that JSON allows, so that a parser still
// reads the exact name. A raw line feed can only be the layout's own.
QString PrintableJson(const QJsonDocument &document)
{
    QString json;
    for (const uint ucs4 : QString::fromUtf8(document.toJson(QJsonDocument::Indented)).toUcs4()) {
        const QString character = QString::fromUcs4(&ucs4, 1);
        if (ucs4 == '\n' || !IsUnsafeForTerminal(ucs4)) {
            json += character;
            continue;
        }
        for (const QChar unit : character)
            json += QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
    }
    return json;
}

QString Describe(const ActiveClient &client)
{
    return Printable(client.guestName) + QLatin1Char(' ') + UuidText(client.sessionUuid);
}

// The message, followed by the client's reason when it has one.
QString WithReason(const QString &message, const TarnClt &client)
{
    const QString reason = client.ErrorString();
    return reason.isEmpty() ? message : message + QStringLiteral(": ") + reason;
}

QList<ActiveClient> Missing(const QList<ActiveClient> &from, const QList<ActiveClient> &in)
{
    const QSet<ActiveClient> present(in.cbegin(), in.cend());
    QList<ActiveClient> missing;
    for (const ActiveClient &client : from)
        if (!present.contains(client))
            missing.append(client);
    return missing;
}

} // namespace

ClientChanges DiffClients(const QList<ActiveClient> &before, const QList<ActiveClient> &after)
{
    return {Missing(before, after), Missing(after, before)};
}

TarnTool::TarnTool()
    : out(stdout), err(stderr)
{
    parser.setApplicationDescription(QStringLiteral("Reaches a Tarn session server from a terminal.\n\n")
                                     + Commands.arg(KnownServers::DefaultPath()));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("discover, ping, clients or watch"));
    parser.addPositionalArgument(QStringLiteral("url"), QStringLiteral("server URL, wss://HOST:PORT"),
                                 QStringLiteral("[url]"));
    parser.addOptions({
        {QStringLiteral("name"), QStringLiteral("Guest name to introduce this client with (default: login name)."),
         QStringLiteral("name"), LoginName()},
        {QStringLiteral("session"), QStringLiteral("Session UUID (default: a new one per run)."),
         QStringLiteral("uuid")},
        {QStringLiteral("json"), QStringLiteral("clients: print a JSON array instead of a table.")},
        {QStringLiteral("interval"), QStringLiteral("watch: poll period in milliseconds (default 2000)."),
         QStringLiteral("ms"), QStringLiteral("2000")},
        {AcceptNewKey, QStringLiteral("Trust the certificate the server presents now in place of the recorded one.")},
        {Insecure, QStringLiteral("Do not check the server's certificate, and record nothing.")},
    });
}

int TarnTool::Fail(const QString &message, int code)
{
    err << "tarn: " << message << Qt::endl;
    return code;
}

int TarnTool::Run(const QStringList &arguments)
{
    if (!parser.parse(arguments))
        return Fail(parser.errorText(), Usage);
    if (Tarn::AnswerHelpOrVersion(parser, out))
        return Ok;

    const QStringList args = parser.positionalArguments();
    const QString command = args.value(0);
    if (args.size() > 2)
        return Fail(QStringLiteral("too many arguments; see tarn --help"), Usage);
    if (command == QLatin1String("discover"))
        return args.size() == 1 ? Discover() : Fail(QStringLiteral("discover takes no URL"), Usage);
    if (parser.isSet(AcceptNewKey) && parser.isSet(Insecure))
        return Fail(QStringLiteral("--accept-new-key and --insecure exclude each other"), Usage);
    if (!ParseIdentity())
        return Usage;
    if (command == QLatin1String("ping"))
        return PingCommand();
    if (command == QLatin1String("clients"))
        return ClientsCommand();
    if (command == QLatin1String("watch"))
        return WatchCommand();
    return Fail(command.isEmpty() ? QStringLiteral("no command given; see tarn --help")
                                  : QStringLiteral("unknown command '%1'; see tarn --help").arg(command),
                Usage);
}

bool TarnTool::ParseIdentity()
{
    identity.firstUuid = QUuid::createUuid();
    identity.thirdUuid = QUuid::createUuid();
    identity.guestName = parser.value(QStringLiteral("name"));
    if (!parser.isSet(QStringLiteral("session"))) {
        identity.sessionUuid = QUuid::createUuid();
        return true;
    }
    const QString text = parser.value(QStringLiteral("session"));
    identity.sessionUuid = QUuid(text);
    if (identity.sessionUuid.isNull()) {
        Fail(QStringLiteral("'%1' is not a session UUID").arg(text), Usage);
        return false;
    }
    return true;
}

QList<QUrl> TarnTool::DiscoverServers()
{
    // Anyone on the network can answer: the detector keeps only URLs that pass
    // IsServerUrl, the same check as for a URL given on the command line.
    SrvUrlDetect detector(nullptr);
    return detector.Detect();
}

int TarnTool::Discover()
{
    const QList<QUrl> urls = DiscoverServers();
    if (urls.isEmpty())
        return Fail(QStringLiteral("no Tarn server answered the discovery request"));
    KnownServers known;
    QString error;
    if (!known.Load(&error))
        return Fail(QStringLiteral("cannot use the known servers: %1").arg(error));
    const QStringList fingerprints = ProbeFingerprints(urls, ProbeTimeoutMs);
    int width = 0;
    for (const QUrl &url : urls)
        width = qMax(width, url.toString().size());
    for (int i = 0; i < urls.size(); ++i) {
        const QString &presented = fingerprints.at(i);
        const QString recorded = known.Find(urls.at(i));
        out << urls.at(i).toString().leftJustified(width) << "  ";
        if (presented.isEmpty())
            out << "no TLS answer\n";
        else
            out << presented << "  "
                << (recorded.isEmpty() ? "new" : recorded == presented ? "known" : "CHANGED") << '\n';
    }
    out.flush();
    return Ok;
}

int TarnTool::Connect(TarnClt &client, QUrl &url)
{
    const QStringList args = parser.positionalArguments();
    if (args.size() == 2) {
        url = QUrl(args.at(1), QUrl::StrictMode);
        if (!IsServerUrl(url))
            return Fail(QStringLiteral("'%1' is not a server URL; expected wss://HOST:PORT").arg(args.at(1)), Usage);
    } else if (const int rc = DiscoverOne(url)) {
        return rc;
    }
    if (parser.isSet(Insecure)) {
        err << "tarn: --insecure: the server's certificate is not checked; anyone on the way could pose as it"
            << Qt::endl;
        return client.Open(url, &identity) ? Ok : CannotConnect(url, client);
    }
    return OpenKnown(client, url);
}

// Trust on first use: the first certificate a server presents is recorded,
// later connections must present the same one.
int TarnTool::OpenKnown(TarnClt &client, const QUrl &url)
{
    KnownServers known;
    QString error;
    if (!known.Load(&error))
        return Fail(QStringLiteral("cannot use the known servers: %1; --insecure skips the check").arg(error));
    const QString recorded = known.Find(url);
    const QString expected = parser.isSet(AcceptNewKey) ? QString() : recorded;
    client.SetExpectedFingerprint(expected);
    const bool opened = client.Open(url, &identity);
    const QString presented = client.PeerFingerprint();
    if (!expected.isEmpty() && !presented.isEmpty() && presented != expected) {
        err << "tarn: " << KnownServers::Key(url) << " presents a different certificate from the one recorded; "
            << "refusing to connect\n";
        ShowFingerprints(recorded, presented);
        err << "Someone may be posing as the server, or it has a new identity. If its operator confirms\n"
               "the new fingerprint (TarnSrv --fingerprint shows it), run again with --accept-new-key,\n"
               "or edit "
            << known.Path() << Qt::endl;
        return Failed;
    }
    if (!opened)
        return CannotConnect(url, client);
    if (presented.isEmpty() || presented == recorded)
        return Ok;
    if (recorded.isEmpty()) {
        err << "tarn: first contact with " << KnownServers::Key(url)
            << ", whose certificate has the SHA-256 fingerprint\n  " << presented << '\n';
    } else {
        err << "tarn: --accept-new-key: replacing the certificate recorded for " << KnownServers::Key(url) << '\n';
        ShowFingerprints(recorded, presented);
    }
    if (known.Record(url, presented, &error))
        err << "tarn: it is trusted from now on (recorded in " << known.Path() << ')' << Qt::endl;
    else
        err << "tarn: trusted for this run only: " << error << Qt::endl;
    return Ok;
}

void TarnTool::ShowFingerprints(const QString &recorded, const QString &presented)
{
    err << "  recorded SHA-256 fingerprint:  " << recorded << '\n'
        << "  presented SHA-256 fingerprint: " << presented << '\n';
}

int TarnTool::CannotConnect(const QUrl &url, const TarnClt &client)
{
    return Fail(WithReason(QStringLiteral("cannot connect to %1").arg(url.toString()), client));
}

int TarnTool::DiscoverOne(QUrl &url)
{
    const QList<QUrl> urls = DiscoverServers();
    if (urls.isEmpty())
        return Fail(QStringLiteral("no Tarn server answered the discovery request; give its URL"));
    if (urls.size() > 1) {
        err << "tarn: several servers answered:\n";
        for (const QUrl &candidate : urls)
            err << "  " << candidate.toString() << '\n';
        return Fail(QStringLiteral("give one of these URLs"));
    }
    url = urls.first();
    return Ok;
}

bool TarnTool::FetchClients(TarnClt &client, QList<ActiveClient> &clients)
{
    QString body;
    client.RequestActiveClients(body);
    // This connection is itself a client, so a real answer is never empty.
    if (body.isEmpty())
        return false;
    clients = ParseActiveClients(body);
    return true;
}

int TarnTool::PingCommand()
{
    QUrl url;
    TarnClt client;
    if (const int rc = Connect(client, url))
        return rc;
    QElapsedTimer rtt;
    rtt.start();
    const int result = client.Ping();
    const double ms = double(rtt.nsecsElapsed()) / 1e6;
    client.Close();
    if (result != 0)
        return Fail(WithReason(
            QStringLiteral("no pong from %1 within %2 ms").arg(url.toString()).arg(TarnClt::ReplyTimeoutMs), client));
    out << "pong from " << url.toString() << ": " << QString::number(ms, 'f', 2) << " ms" << Qt::endl;
    return Ok;
}

int TarnTool::ClientsCommand()
{
    QUrl url;
    TarnClt client;
    QList<ActiveClient> clients;
    if (const int rc = Connect(client, url))
        return rc;
    if (!FetchClients(client, clients))
        return Fail(WithReason(QStringLiteral("no answer from %1").arg(url.toString()), client));
    client.Close();

    if (parser.isSet(QStringLiteral("json"))) {
        QJsonArray array;
        for (const ActiveClient &c : qAsConst(clients))
            array.append(QJsonObject{{QStringLiteral("guestName"), c.guestName},
                                     {QStringLiteral("sessionUuid"), UuidText(c.sessionUuid)}});
        out << PrintableJson(QJsonDocument(array));
        return Ok;
    }
    const QString nameHeader = QStringLiteral("GUEST NAME");
    int width = nameHeader.size();
    for (ActiveClient &c : clients) {
        c.guestName = Printable(c.guestName);
        width = qMax(width, c.guestName.size());
    }
    out << nameHeader.leftJustified(width) << "  SESSION\n";
    for (const ActiveClient &c : qAsConst(clients))
        out << c.guestName.leftJustified(width) << "  " << UuidText(c.sessionUuid) << '\n';
    out.flush();
    return Ok;
}

int TarnTool::WatchCommand()
{
    bool intervalOk = false;
    const int interval = parser.value(QStringLiteral("interval")).toInt(&intervalOk);
    if (!intervalOk || interval < 100)
        return Fail(QStringLiteral("--interval takes at least 100 milliseconds"), Usage);

    QUrl url;
    TarnClt client;
    if (const int rc = Connect(client, url))
        return rc;
    out << "watching " << url.toString() << Qt::endl;

    QEventLoop loop;
    QList<ActiveClient> shown;
    auto report = [this](const QChar sign, const ActiveClient &c) {
        out << QDateTime::currentDateTime().toString(QStringLiteral("HH:mm:ss")) << ' ' << sign << ' '
            << Describe(c) << Qt::endl;
    };
    auto poll = [&] {
        QList<ActiveClient> now;
        if (!FetchClients(client, now))
            return;
        const ClientChanges changes = DiffClients(shown, now);
        for (const ActiveClient &c : changes.left)
            report(QLatin1Char('-'), c);
        for (const ActiveClient &c : changes.joined)
            report(QLatin1Char('+'), c);
        shown = now;
    };
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &loop, poll);
    QObject::connect(&client, &TarnClt::UnexpectedDisconnection, &loop, [&] { loop.exit(Failed); });
    // From inside the loop, so that a loss during the first poll can end it.
    QTimer::singleShot(0, &loop, poll);
    timer.start(interval);
    loop.exec();
    return Fail(WithReason(QStringLiteral("connection to %1 lost").arg(url.toString()), client));
}
