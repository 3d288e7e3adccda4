#ifndef QTSERVICE_P_H
#define QTSERVICE_P_H

#include "exitcode.h"
#include "qtservice.h"
#include "scmapi.h"

#include <QAbstractNativeEventFilter>
#include <QMutex>
#include <QSemaphore>
#include <QThread>
#include <QWaitCondition>

class QtServiceControllerData
{
public:
    QtServiceControllerData(const QString &name, QtServiceController *controller)
        : serviceName(name), q_ptr(controller)
    {
    }

    QString serviceName;
    QtServiceController *q_ptr;
};

class QtServiceControllerHandler;

// What a run under the control manager shares between its three threads.
class QtServiceRuntimeState
{
public:
    explicit QtServiceRuntimeState(QtServiceBase::ServiceFlags flags);

    static DWORD controlsForFlags(QtServiceBase::ServiceFlags flags);
    void reportStatus(DWORD state);
    void sendStatus();

    SERVICE_STATUS status;
    SERVICE_STATUS_HANDLE statusHandle = nullptr;
    QStringList serviceArgs;
    QWaitCondition condition;
    QMutex mutex;
    QSemaphore startSemaphore;
    QSemaphore proceedSemaphore;
    QtServiceControllerHandler *controllerHandler = nullptr;
};

class QtServiceBaseData
{
public:
    QtServiceBaseData(QtServiceBase *owner, const QString &name);

    int runApplication(bool asService, const QStringList &arguments);
    bool runAsService();
    bool installService(const QString &account, const QString &password);
    // Description, restarts and delayed start of a service just created.
    void configureInstalled(SC_HANDLE service);
    // Why the program, its folder or a guarded file is open to other users,
    // or an empty string.
    QString unguardedFile(const QString &account) const;
    static QString executablePath();

    // Set for a host started by QtServiceController::install: -install then
    // reads the password from stdin, not from its command line.
    static constexpr char PasswordOnStdinVar[] = "TARN_SERVICE_PASSWORD_STDIN";
    void handleControlEvent(QEvent *event);
    void stopWithError(int code);
    void startService() { q_ptr->start(); }
    static QtServiceBaseData *of(QtServiceBase *service) { return service->d_ptr; }

    QtServiceBase *q_ptr;
    QString description;
    QtServiceController::StartupType startupType = QtServiceController::ManualStartup;
    QList<int> restartDelaysMs;
    int restartResetSeconds = 0;
    bool delayedAutoStart = false;
    QStringList guardedFiles;
    QtServiceBase::ServiceFlags flags;
    QStringList args;
    QtServiceController controller;
    QtServiceRuntimeState *sysd = nullptr;
    // Set by stopWithError: the service-specific code of the final status.
    int serviceSpecificExitCode = 0;

    static QtServiceBase *instance;
};

// Runs the control-manager dispatcher; blocks in it while the service runs.
class HandlerThread : public QThread
{
public:
    bool dispatcherOk = true;
    bool fromConsole = false;

protected:
    void run() override;
};

// Lives on the main thread and runs the service operations posted to it.
class QtServiceControllerHandler : public QObject
{
    Q_OBJECT
public:
    explicit QtServiceControllerHandler(QtServiceRuntimeState *state) : sysd(state) {}
    QtServiceRuntimeState *runtimeState() const { return sysd; }

protected:
    void customEvent(QEvent *event) override;

private:
    QtServiceRuntimeState *sysd;
};

// Calls the service's start from the first turn of the event loop.
class QtServiceStarter : public QObject
{
    Q_OBJECT
public:
    explicit QtServiceStarter(QtServiceBaseData *data) : d_ptr(data) {}

public slots:
    void slotStart() { d_ptr->startService(); }

private:
    QtServiceBaseData *d_ptr;
};

// Qt 6 widened the native event filter's result from long to qintptr.
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
using NativeEventResult = qintptr;
#else
using NativeEventResult = long;
#endif

// Keeps a user logoff from ending the service's event loop.
class QtServiceAppEventFilter : public QAbstractNativeEventFilter
{
public:
    bool nativeEventFilter(const QByteArray &eventType, void *message, NativeEventResult *result) override;
    static QtServiceAppEventFilter *instance();
};

#endif // QTSERVICE_P_H
