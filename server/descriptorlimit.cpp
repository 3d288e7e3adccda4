#include "descriptorlimit.h"

#include <QtGlobal>

#ifdef Q_OS_UNIX
#include <sys/resource.h>
#endif

#include <algorithm>
#include <climits>

void Tarn::RaiseDescriptorLimit()
{
#ifdef Q_OS_UNIX
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit); // when refused, the server works within the old one
#endif
}

int Tarn::ClientRoom()
{
#ifdef Q_OS_UNIX
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return -1;
    const rlim_t reserved = ReservedDescriptors;
    const rlim_t room = limit.rlim_cur > reserved ? limit.rlim_cur - reserved : 0;
    return int(std::min<rlim_t>(room, INT_MAX));
#else
    return -1;
#endif
}
