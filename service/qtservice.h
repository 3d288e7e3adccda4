#ifndef QTSERVICE_H
#define QTSERVICE_H

#include <QCoreApplication>
#include <QStringList>

class QtServiceControllerData;

// Controls an installed service by name from outside the service process.
class QtServiceController
{
public:
    enum StartupType { AutoStartup = 0, ManualStartup };

    explicit QtServiceController(const QString &name);
    virtual ~QtServiceController();

    bool isInstalled() const;
    bool isRunning() const;

    QString serviceName() const;
    QString serviceDescription() const;
    StartupType startupType() const;
    QString serviceFilePath() const;

    static bool install(const QString &serviceFilePath, const QString &account = QString(),
                        const QString &password = QString());
    bool uninstall();

    bool start(const QStringList &arguments);
    bool start();
    bool stop();
    bool pause();
    bool resume();
    bool sendCommand(int code);

private:
    Q_DISABLE_COPY(QtServiceController)
    QtServiceControllerData *d_ptr;
};

class QtServiceBaseData;

// A service: its identity, its command line and the operations the control
// manager triggers. Subclasses provide the application object.
class QtServiceBase
{
public:
    enum MessageType { Success = 0, Error, Warning, Information };

    enum ServiceFlag {
        Default = 0x00,
        CanBeSuspended = 0x01,
        CannotBeStopped = 0x02,
        StopOnShutdown = 0x04
    };
    Q_DECLARE_FLAGS(ServiceFlags, ServiceFlag)

    QtServiceBase(int argc, char **argv, const QString &name);
    virtual ~QtServiceBase();

    QString serviceName() const;
    QString serviceDescription() const;
    void setServiceDescription(const QString &description);
    QtServiceController::StartupType startupType() const;
    void setStartupType(QtServiceController::StartupType startupType);
    ServiceFlags serviceFlags() const;
    void setServiceFlags(ServiceFlags flags);

    // What -install registers with the service. Restarts after a failure,
    // a stop with an error code included: the delay of each in turn (the last
    // repeats) and the seconds without a failure after which the count starts
    // over.
    void setFailureRestarts(const QList<int> &delaysMs, int resetSeconds);
    // An automatic start waits until the other automatic services have started.
    void setDelayedAutoStart(bool delayed);
    // Files in the program's folder that the service runs or reads: -install
    // refuses when a user it does not trust can change one of them, the
    // program or the folder (see programguard.h).
    void setGuardedFiles(const QStringList &fileNames);

    int exec();

    void logMessage(const QString &message, MessageType type = Success, int id = 0,
                    uint category = 0, const QByteArray &data = QByteArray());

    static QtServiceBase *instance();

protected:
    virtual void start() = 0;
    virtual void stop();
    virtual void pause();
    virtual void resume();
    virtual void processCommand(int code);

    // Ends the run as a failure. As a service: stop() runs, then the control
    // manager is told the service stopped with a service-specific error
    // (1066) whose code is the given one, so that its recovery actions apply.
    // Run with -e: stop() runs and the application ends with code as its
    // status. 0 is no failure and is taken as 1.
    void stopWithError(int code);

    virtual void createApplication(int &argc, char **argv) = 0;
    virtual int executeApplication() = 0;

private:
    friend class QtServiceBaseData;
    friend class QtServiceControllerHandler;
    friend class QtServiceStarter;
    Q_DISABLE_COPY(QtServiceBase)
    QtServiceBaseData *d_ptr;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QtServiceBase::ServiceFlags)

// Binds a service to an application object of type Application.
template <typename Application>
class QtService : public QtServiceBase
{
public:
    QtService(int argc, char **argv, const QString &name)
        : QtServiceBase(argc, argv, name)
    {
    }

protected:
    Application *application() const { return app; }

    void createApplication(int &argc, char **argv) override
    {
        // The runtime deletes the application object, not this class.
        app = new Application(argc, argv);
    }

    int executeApplication() override { return Application::exec(); }

private:
    Application *app = nullptr;
};

#endif // QTSERVICE_H
