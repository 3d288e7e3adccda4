#pragma once

#include "tarnclt.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>

#include <memory>

// The real manager (offscreen) in a private folder on a free port, and a
// well-behaved client that pings it every 100 ms from the test's thread
// while attacks run. Loopback only.
class ManagerUnderAttack : public QObject
{
    Q_OBJECT

public:
    ~ManagerUnderAttack() override;

    // Starts the manager and the pinging client; false when either fails.
    bool Start();
    qint64 RssKb() const;
    int OpenFds() const;
    QByteArray LogFile() const;
    // A TLS connection upgraded by hand, for frames no well-made client sends.
    std::unique_ptr<QSslSocket> RawWebSocket(const QByteArray &origin) const;

    quint16 port = 0;
    QUrl url;
    TarnClt good;
    ClientRecord goodRecord;
    int pings = 0;
    int latePings = 0;
    qint64 longestSilenceMs = 0;

private:
    void PingOnce();

    QTemporaryDir dir;
    QProcess manager;
    QTimer pinger;
    QElapsedTimer sinceAnswer;
    bool pinging = false;
};

QByteArray UpgradeRequest(quint16 port, const QByteArray &origin);
// A masked client frame whose header may declare more payload than follows.
QByteArray Frame(quint8 opcode, const QByteArray &payload, quint64 declared);
