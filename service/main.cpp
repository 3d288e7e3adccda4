#include "tarnsrvsrv.h"

int main(int argc, char **argv)
{
    TarnSrvSrv service(argc, argv);
    return service.exec();
}
