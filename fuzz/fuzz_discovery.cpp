// The discovery datagram, as any program on the network can send it, fed to
// both halves of SrvUrlDetect: a detector that has collected nothing (the reply
// path) and a responder that announces a URL (the request path). Both are made
// anew for every input so that nothing accumulates between inputs.
//
// Nothing is ever sent: the datagram is handed to ProcessDatagram directly, so
// the sender address stays null, no local address matches it, and a request is
// left unanswered before any reply is built.

#include "fuzzsupport.h"
#include "protocol.h"
#include "srvurldetect.h"

#include <QUdpSocket>

using TarnFuzz::Require;

namespace {

const QUrl AnnouncedUrl(QStringLiteral("wss://127.0.0.1:50443"));

void FeedDetector(const QByteArray &datagram)
{
    SrvUrlDetect detector(nullptr);
    QUdpSocket unbound;
    detector.ProcessDatagram(&unbound, datagram);
    Require(detector.Urls().size() <= 1, "a datagram adds at most one URL to a detector");
    Require(detector.Urls().isEmpty() || Tarn::IsServerUrl(detector.Urls().first()),
            "a detector keeps only server URLs");
}

void FeedResponder(const QByteArray &datagram)
{
    SrvUrlDetect responder(nullptr);
    // Binds one UDP socket in the discovery range; it is never read or written.
    Require(responder.Advertise(AnnouncedUrl) == 0, "a responder could bind a discovery port");
    auto *socket = responder.findChild<QUdpSocket *>();
    Require(socket != nullptr, "an advertised responder owns its socket");
    responder.ProcessDatagram(socket, datagram);
    Require(responder.Urls() == QList<QUrl>{AnnouncedUrl}, "a datagram never changes the announced URL");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray datagram(reinterpret_cast<const char *>(data), int(size));
    FeedDetector(datagram);
    FeedResponder(datagram);
    return 0;
}
