#include "tarnsrv.h"
#include "tarnsrvgui.h"

#include <QApplication>

int main(int argc, char *argv[])
{
    TarnSrv::PreferScalableEventLoop();
    QApplication app(argc, argv);
    int result = 0;
    {
        TarnSrvGui window;
        window.show();
        result = QApplication::exec();
    }
    return result;
}
