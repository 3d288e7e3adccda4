#pragma once

#include <QElapsedTimer>
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
    // Where the responder's port search gives up.
    static constexpr int LastUdpPort = 65535;
    // A detection keeps at most this many URLs; a LAN has a few servers at most.
    static constexpr int MaxDetectedUrls = 32;
    // A responder answers at most this many requests a second.
    static constexpr int MaxAnswersPerSecond = 100;

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

signals:
    void Log(QString text, quint32 type, bool msgBox);

public slots:
    void ReadPendingDatagrams();

public:
    void ProcessDatagram(QUdpSocket *socket, const QByteArray &datagram);

private:
    void AnswerRequest(QUdpSocket *socket);
    bool AnswerBudgetLeft();
    void CollectReply(const QUrl &url);
    bool NamesSender(const QUrl &url) const;
    void CloseSockets();

    QList<QUdpSocket *> sockets;
    qint32 port = DiscoveryFirstPort;
    QList<QUrl> urls;
    // Set by a successful Advertise: a responder has nothing to learn from replies.
    bool advertised = false;
    bool replyReceived = false;
    QElapsedTimer answerWindow;
    int answersInWindow = 0;
    QHostAddress senderAddress;
    quint16 senderPort = 0;
};
