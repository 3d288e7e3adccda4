// A text frame as a server (or anyone answering the client's connection) can
// send it, dispatched by the client connector, and the body of an
// "Active clients" reply read into entries.

#include "fuzzsupport.h"
#include "protocol.h"
#include "tarnclt.h"

using TarnFuzz::Require;

namespace {

TarnClt &Client()
{
    static TarnClt client;
    return client;
}

// Splitting keeps empty fields; every complete pair of fields is one entry.
void CheckActiveClients(const QString &body)
{
    const QList<ActiveClient> clients = Tarn::ParseActiveClients(body);
    Require(clients.size() == Tarn::SplitMessage(body).size() / 2, "one entry per pair of fields");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString msg = TarnFuzz::Utf8Text(data, size);
    Require(QMetaObject::invokeMethod(&Client(), "RcvdMessage", Qt::DirectConnection, Q_ARG(QString, msg)),
            "the dispatch slot is callable");
    const int comma = msg.indexOf(QLatin1Char(','));
    CheckActiveClients(comma < 0 ? msg : msg.mid(comma + 1));
    return 0;
}
