#include "managercommandline.h"

#include "commandline.h"
#include "tarnsrvsettings.h"
#include "tlsidentity.h"

#include <QTextStream>

using namespace Tarn;

namespace {

int Fail(const QString &message, int code)
{
    QTextStream(stderr) << "TarnSrv: " << message << Qt::endl;
    return code;
}

} // namespace

ManagerCommandLine::ManagerCommandLine()
    : fingerprintOption(QStringLiteral("fingerprint"),
                        QStringLiteral("Print the SHA-256 fingerprint of the server's TLS certificate and exit "
                                       "(the identity is made first if there is none yet)."))
    , newIdentityOption(QStringLiteral("new-identity"),
                        QStringLiteral("Replace the server's TLS key pair and certificate by new ones and exit. "
                                       "Clients that pinned the old one must accept the new one."))
    , startOption(QStringLiteral("start"),
                  QStringLiteral("Start the server at start-up, whatever the stored auto start says."))
    , portOption(QStringLiteral("port"),
                 QStringLiteral("Serve on port <n> (1 to 65535) in this run; the stored port is kept."),
                 QStringLiteral("n"))
    , headlessOption(QStringLiteral("headless"),
                     QStringLiteral("Run without a window and log to stderr as well; "
                                    "the default when there is no display."))
    , runModeOption(QStringLiteral("run-mode"),
                    QStringLiteral("Print how a run with the other options would go here, \"window\" or "
                                   "\"headless\", and exit."))
{
    parser.setApplicationDescription(QStringLiteral("The Tarn manager: a secure WebSocket session server "
                                                    "with its control window.\nIts TLS identity is kept in %1.")
                                         .arg(TlsIdentity::DefaultFolder()));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption(fingerprintOption);
    parser.addOption(newIdentityOption);
    parser.addOption(startOption);
    parser.addOption(portOption);
    parser.addOption(headlessOption);
    parser.addOption(runModeOption);
}

bool ManagerCommandLine::Parse(const QStringList &arguments)
{
    QString problem;
    if (!parser.parse(arguments))
        problem = parser.errorText();
    else if (!parser.positionalArguments().isEmpty())
        problem = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst());
    else if (parser.isSet(portOption) && Options().port == 0)
        problem = QStringLiteral("the port must be a number from %1 to %2, not '%3'")
                      .arg(TarnSrvSettings::MinPort)
                      .arg(TarnSrvSettings::MaxPort)
                      .arg(parser.value(portOption));
    if (problem.isEmpty())
        return true;
    Fail(problem + QStringLiteral("; see TarnSrv --help"), Usage);
    return false;
}

bool ManagerCommandLine::IsToolRun() const
{
    return parser.isSet(QStringLiteral("help")) || parser.isSet(QStringLiteral("version"))
           || parser.isSet(fingerprintOption) || parser.isSet(newIdentityOption);
}

RunOptions ManagerCommandLine::Options() const
{
    bool number = false;
    const int port = parser.value(portOption).toInt(&number, 10);
    return {parser.isSet(startOption), number && TarnSrvSettings::IsPort(port) ? port : 0,
            parser.isSet(headlessOption)};
}

bool ManagerCommandLine::AsksRunMode() const
{
    return parser.isSet(runModeOption);
}

int ManagerCommandLine::RunTool()
{
    QTextStream out(stdout);
    if (Tarn::AnswerHelpOrVersion(parser, out))
        return Ok;
    return parser.isSet(newIdentityOption) ? RenewIdentity() : PrintFingerprint();
}

int ManagerCommandLine::PrintFingerprint()
{
    const QString folder = TlsIdentity::DefaultFolder();
    QString error;
    bool created = false;
    const TlsIdentity identity = TlsIdentity::LoadOrCreate(folder, &error, &created);
    if (identity.isNull())
        return Fail(error, Failed);
    if (created)
        QTextStream(stderr) << "Made a new TLS identity in " << folder << '.' << Qt::endl;
    QTextStream(stdout) << identity.Fingerprint() << Qt::endl;
    return Ok;
}

int ManagerCommandLine::RenewIdentity()
{
    const QString folder = TlsIdentity::DefaultFolder();
    const QList<QSslCertificate> old = QSslCertificate::fromPath(TlsIdentity::CertificatePath(folder));
    QString error;
    const TlsIdentity identity = TlsIdentity::Renew(folder, &error);
    if (identity.isNull())
        return Fail(error, Failed);
    QTextStream out(stdout);
    out << "Made a new TLS key pair and certificate in " << folder << '.' << Qt::endl;
    if (!old.isEmpty())
        out << "Old SHA-256 fingerprint: " << TlsIdentity{old.first(), QSslKey()}.Fingerprint() << Qt::endl;
    out << "New SHA-256 fingerprint: " << identity.Fingerprint() << Qt::endl
        << "A running manager keeps the old one until it is started again. Clients that pinned the old one "
           "must accept the new one (tarn --accept-new-key)."
        << Qt::endl;
    return Ok;
}
