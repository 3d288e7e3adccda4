#pragma once

#include <QSignalSpy>
#include <QSslError>
#include <QStringList>
#include <QWebSocket>

// A bare WebSocket peer for driving the server: it accepts the self-signed
// certificate and records every text message it receives.
class WsClient : public QObject
{
    Q_OBJECT

public:
    explicit WsClient(const QString &origin, QObject *parent = nullptr)
        : QObject(parent), socket(origin, QWebSocketProtocol::Version13)
    {
        connect(&socket, &QWebSocket::sslErrors, &socket,
                [this](const QList<QSslError> &) { socket.ignoreSslErrors(); });
        connect(&socket, &QWebSocket::textMessageReceived, this,
                [this](const QString &msg) { received.append(msg); });
    }

    bool Open(quint16 port)
    {
        QSignalSpy connected(&socket, &QWebSocket::connected);
        socket.open(QUrl(QStringLiteral("wss://127.0.0.1:%1").arg(port)));
        return connected.count() > 0 || connected.wait(5000);
    }

    // Waits until at least n messages have arrived in total.
    bool WaitForMessages(int n, int timeoutMs = 5000)
    {
        QSignalSpy spy(&socket, &QWebSocket::textMessageReceived);
        while (received.size() < n)
            if (!spy.wait(timeoutMs))
                return false;
        return true;
    }

    QWebSocket socket;
    QStringList received;
};

inline QString Origin(const QString &session, const QString &name)
{
    return QStringLiteral("{11111111-1111-1111-1111-111111111111},%1,"
                          "{33333333-3333-3333-3333-333333333333},%2").arg(session, name);
}
