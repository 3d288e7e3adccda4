#include "tarnsrvsrv.h"

#ifdef Q_OS_WIN
#include <windows.h>
#include <shellapi.h>
#endif

int main(int argc, char **argv)
{
    TarnSrvSrv service(argc, argv);
    return service.exec();
}

#ifdef Q_OS_WIN
// The host is a GUI-subsystem program: build argc/argv in the ANSI code page
// from the wide command line.
int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int)
{
    int argc = 0;
    LPWSTR *wide = CommandLineToArgvW(GetCommandLineW(), &argc);
    if (!wide)
        return -1;
    char **argv = new char *[argc + 1];
    for (int i = 0; i < argc; ++i) {
        const int size = WideCharToMultiByte(CP_ACP, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
        argv[i] = new char[size];
        WideCharToMultiByte(CP_ACP, 0, wide[i], -1, argv[i], size, nullptr, nullptr);
    }
    argv[argc] = nullptr;
    LocalFree(wide);

    const int status = main(argc, argv);

    for (int i = 0; argv[i]; ++i)
        delete[] argv[i];
    delete[] argv;
    return status;
}
#endif
