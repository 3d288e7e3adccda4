#include "srvurldetect.h"

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
    // Another program may hold a port of the range: search upward, without limit.
    while (!socket->bind(QHostAddress::Any, quint16(port)))
        ++port;
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
    } else if (id == DiscoveryReplyId) {
        QUrl url;
        in >> url;
        if (!urls.contains(url))
            urls.append(url);
        replyReceived = true;
    }
}

void SrvUrlDetect::AnswerRequest(QUdpSocket *socket)
{
    const quint32 local = LocalAddressFor(senderAddress.toIPv4Address());
    if (local == 0)
        return;
    QUrl url = urls.first();
    url.setHost(QHostAddress(local).toString());
    socket->writeDatagram(ReplyDatagram(url), senderAddress, senderPort);
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
