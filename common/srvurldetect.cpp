#include "srvurldetect.h"

#include "loglevel.h"
#include "protocol.h"

#include <QDataStream>
#include <QEventLoop>
#include <QNetworkInterface>
#include <QTimer>
#include <QUdpSocket>

const QString SrvUrlDetect::DiscoveryRequestId = QStringLiteral("a24566ba-d6a4-44a8-9dcb-31f3d88e699d");
const QString SrvUrlDetect::DiscoveryReplyId = QStringLiteral("b7fb56d1-2592-4625-85e4-dd05cfcd99cd");

SrvUrlDetect::SrvUrlDetect(QObject *parent)
    : QObject(parent)
{
}

SrvUrlDetect::~SrvUrlDetect()
{
    CloseSockets();
}

void SrvUrlDetect::CloseSockets()
{
    while (!sockets.isEmpty())
        delete sockets.takeFirst();
}

int SrvUrlDetect::Bind()
{
    if (sockets.isEmpty())
        sockets.append(new QUdpSocket(this));
    QUdpSocket *socket = sockets.last();
    // Another program may hold a port of the range: search upward, to the last
    // port there is. Windows reports a port reserved by the system as an access
    // error. Any other failure, such as no descriptor left, would recur on every
    // port, so it ends the search at once.
    while (!socket->bind(QHostAddress::Any, quint16(port))) {
        const QAbstractSocket::SocketError error = socket->error();
        const bool portTaken = error == QAbstractSocket::AddressInUseError
                               || error == QAbstractSocket::SocketAccessError;
        if (!portTaken || port == LastUdpPort) {
            emit Log(QStringLiteral("Discovery is not available: cannot bind UDP port %1 (%2). "
                                    "Clients need the server's URL.")
                         .arg(port)
                         .arg(socket->errorString()),
                     LogLevel::Warning, false);
            return -1;
        }
        ++port;
    }
    // Deliberately only the last port is refused: a responder above the range is
    // accepted although no detector reaches it.
    if (port == DiscoveryLastPort)
        return -1;
    connect(socket, &QUdpSocket::readyRead, this, &SrvUrlDetect::ReadPendingDatagrams);
    return 0;
}

int SrvUrlDetect::Advertise(const QUrl &url)
{
    const int result = Bind();
    if (result != 0)
        return result;
    urls.clear();
    urls.append(url);
    advertised = true;
    return 0;
}

QByteArray SrvUrlDetect::RequestDatagram()
{
    QByteArray datagram;
    QDataStream out(&datagram, QIODevice::WriteOnly);
    out << DiscoveryRequestId;
    return datagram;
}

QByteArray SrvUrlDetect::ReplyDatagram(const QUrl &url)
{
    QByteArray datagram;
    QDataStream out(&datagram, QIODevice::WriteOnly);
    out << DiscoveryReplyId << url;
    return datagram;
}

QList<QUrl> SrvUrlDetect::Detect()
{
    urls.clear();
    advertised = false;
    const QByteArray request = RequestDatagram();
    const QList<QHostAddress> addresses = QNetworkInterface::allAddresses();
    for (const QHostAddress &address : addresses) {
        auto *socket = new QUdpSocket(this);
        sockets.append(socket);
        connect(socket, &QUdpSocket::readyRead, this, &SrvUrlDetect::ReadPendingDatagrams);
        socket->bind(address, 0);
        for (port = DiscoveryFirstPort; port <= DiscoveryLastPort; ++port)
            socket->writeDatagram(request, QHostAddress::Broadcast, quint16(port));
    }

    // Replies are read by ReadPendingDatagrams while the loop runs.
    QEventLoop wait;
    QTimer::singleShot(DetectionWaitMs, &wait, &QEventLoop::quit);
    wait.exec();

    CloseSockets();
    return urls;
}

void SrvUrlDetect::ReadPendingDatagrams()
{
    // ProcessDatagram never processes events, so the socket list stays as it is.
    for (QUdpSocket *socket : qAsConst(sockets)) {
        while (socket->hasPendingDatagrams()) {
            QByteArray datagram(int(socket->pendingDatagramSize()), Qt::Uninitialized);
            const qint64 size = socket->readDatagram(datagram.data(), datagram.size(),
                                                     &senderAddress, &senderPort);
            datagram.truncate(int(qMax<qint64>(size, 0)));
            ProcessDatagram(socket, datagram);
        }
    }
}

void SrvUrlDetect::ProcessDatagram(QUdpSocket *socket, const QByteArray &datagram)
{
    QDataStream in(datagram);
    QString id;
    in >> id;
    if (id == DiscoveryRequestId && !urls.isEmpty()) {
        AnswerRequest(socket);
    } else if (id == DiscoveryReplyId && !advertised) {
        QUrl url;
        in >> url;
        CollectReply(url);
    }
}

// Anyone on the network can send replies: keep only server URLs, each once,
// and only a few of them. A reply speaks for its sender only, so that no host
// can send the client to probe another, and a name in it is never resolved.
void SrvUrlDetect::CollectReply(const QUrl &url)
{
    replyReceived = true;
    if (urls.size() < MaxDetectedUrls && Tarn::IsServerUrl(url) && NamesSender(url) && !urls.contains(url))
        urls.append(url);
}

bool SrvUrlDetect::NamesSender(const QUrl &url) const
{
    QHostAddress host;
    return host.setAddress(url.host()) && host.isEqual(senderAddress, QHostAddress::ConvertV4MappedToIPv4);
}

void SrvUrlDetect::AnswerRequest(QUdpSocket *socket)
{
    if (!AnswerBudgetLeft())
        return;
    const quint32 local = LocalAddressFor(senderAddress.toIPv4Address());
    if (local == 0)
        return;
    QUrl url = urls.first();
    url.setHost(QHostAddress(local).toString());
    socket->writeDatagram(ReplyDatagram(url), senderAddress, senderPort);
}

// Each answer lists the interfaces and sends a datagram, and requests may come
// from spoofed senders: a flood gets a bounded share of the event loop. A real
// detection sends one request per local address.
bool SrvUrlDetect::AnswerBudgetLeft()
{
    if (!answerWindow.isValid() || answerWindow.hasExpired(1000)) {
        answerWindow.start();
        answersInWindow = 0;
    }
    return answersInWindow++ < MaxAnswersPerSecond;
}

quint32 SrvUrlDetect::LocalAddressFor(quint32 peer)
{
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &iface : interfaces) {
        const QList<QNetworkAddressEntry> entries = iface.addressEntries();
        for (const QNetworkAddressEntry &entry : entries) {
            const quint32 mask = entry.netmask().toIPv4Address();
            const quint32 network = entry.ip().toIPv4Address() & mask;
            if (network != 0 && network == (peer & mask))
                return entry.ip().toIPv4Address();
        }
    }
    return 0;
}
