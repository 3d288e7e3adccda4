// A text frame as a connected client can send it, dispatched by the session
// server. Without a sending socket the server answers nobody and names the
// client "Unknown host", so the input reaches the dispatch and its handlers
// without any network traffic.

#include "fuzzsupport.h"
#include "protocol.h"
#include "tarnsrv.h"

using TarnFuzz::Require;

namespace {

struct Fixture
{
    TarnSrv server;
    QStringList logged;

    Fixture()
    {
        QObject::connect(&server, &TarnSrv::Log, [this](const QString &text, quint32, bool) {
            logged.append(text);
        });
    }
};

Fixture &TheFixture()
{
    static Fixture fixture;
    return fixture;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Fixture &f = TheFixture();
    // Each input starts a new period of log lines, so none is held back as a repeat.
    Require(QMetaObject::invokeMethod(&f.server, "SummarizeRepeatedLines", Qt::DirectConnection),
            "the period slot is callable");
    f.logged.clear();
    const QString msg = TarnFuzz::Utf8Text(data, size);
    Require(QMetaObject::invokeMethod(&f.server, "RcvdMessage", Qt::DirectConnection, Q_ARG(QString, msg)),
            "the dispatch slot is callable");

    // Only a ping is logged, and a client without a record is "Unknown host".
    const bool ping = Tarn::SplitMessage(msg).first() == Tarn::MsgServerPing;
    const QStringList expected = ping ? QStringList{QStringLiteral("Received ping request from client Unknown host, replied.")}
                                      : QStringList();
    Require(f.logged == expected, "exactly a ping is logged");
    Require(f.server.GetActiveClients().isEmpty(), "a message registers no client");
    return 0;
}
