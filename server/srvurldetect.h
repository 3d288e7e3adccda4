#pragma once

#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QUrl>

class QUdpSocket;

// UDP discovery of the session server: the responder half answers requests with
// the server's wss URL, the detector half broadcasts requests and collects URLs.
class SrvUrlDetect : public QObject
{
    Q_OBJECT

public:
    static const QString DiscoveryRequestId;
    static const QString DiscoveryReplyId;
    static constexpr int DiscoveryFirstPort = 49152;
    static constexpr int DiscoveryLastPort = 49172;
    static constexpr int DetectionWaitMs = 500;

    explicit SrvUrlDetect(QObject *parent);
    ~SrvUrlDetect() override;

    int Bind();
    int Advertise(const QUrl &url);
    QList<QUrl> Detect();

    // Port of the responder after Bind; the detector's next target port.
    int Port() const { return port; }
    // The announced URL, or the URLs a detection collected.
    const QList<QUrl> &Urls() const { return urls; }

    // Datagram layouts: a length-prefixed UTF-16 identifier, then for a reply the URL.
    static QByteArray RequestDatagram();
    static QByteArray ReplyDatagram(const QUrl &url);

    static quint32 LocalAddressFor(quint32 peer);

public slots:
    void ReadPendingDatagrams();

public:
    void ProcessDatagram(QUdpSocket *socket, const QByteArray &datagram);

private:
    void AnswerRequest(QUdpSocket *socket);
    void CloseSockets();

    QList<QUdpSocket *> sockets;
    qint32 port = DiscoveryFirstPort;
    QList<QUrl> urls;
    bool replyReceived = false;
    QHostAddress senderAddress;
    quint16 senderPort = 0;
};
