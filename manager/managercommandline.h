#pragma once

#include <QCommandLineParser>
#include <QStringList>

// What the command line asks of this run; nothing of it is stored.
struct RunOptions
{
    bool start = false;
    // 0 leaves the port to the settings.
    int port = 0;
    bool headless = false;
};

// TarnSrv's command line. The identity tools and the texts run without a window.
class ManagerCommandLine
{
public:
    ManagerCommandLine();

    // False, with the reason printed on stderr, when the arguments are wrong.
    bool Parse(const QStringList &arguments);
    // Whether the arguments ask for a tool, which needs no display.
    bool IsToolRun() const;
    RunOptions Options() const;
    // Whether the arguments ask only how the run would go (window or headless).
    bool AsksRunMode() const;
    // Runs the tool that Parse found; returns the exit code.
    int RunTool();

private:
    int PrintFingerprint();
    int RenewIdentity();

    QCommandLineParser parser;
    const QCommandLineOption fingerprintOption;
    const QCommandLineOption newIdentityOption;
    const QCommandLineOption startOption;
    const QCommandLineOption portOption;
    const QCommandLineOption headlessOption;
    const QCommandLineOption runModeOption;
};
