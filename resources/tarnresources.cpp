#include "tarnresources.h"

#include <QtGlobal>

void InitTarnResources()
{
    static const bool registered = [] {
        Q_INIT_RESOURCE(tarn);
        return true;
    }();
    Q_UNUSED(registered)
}
