#include "unsentpool.h"

#include <QByteArray>
#include <QList>

bool UnsentPool::Holds(const QByteArray &bytes) const
{
    return shared.contains(bytes.constData());
}

void UnsentPool::Hold(const QByteArray &bytes)
{
    Shared &entry = shared[bytes.constData()];
    if (entry.parts++ == 0) {
        entry.size = bytes.size();
        sharedBytes += entry.size;
    }
}

void UnsentPool::Release(const QByteArray &bytes)
{
    const auto it = shared.find(bytes.constData());
    if (it == shared.end() || --it->parts > 0)
        return;
    sharedBytes -= it->size;
    shared.erase(it);
}

void UnsentPool::SetHolding(TlsServerSocket *socket, bool holding)
{
    if (holding)
        holders.insert(socket);
    else
        holders.remove(socket);
}
