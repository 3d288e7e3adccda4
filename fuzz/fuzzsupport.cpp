#include "fuzzsupport.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace {

// Qt's own diagnostics are not findings; keeping them quiet keeps the run's
// output readable. Fatal messages still abort.
void QuietMessages(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "Qt fatal: %s\n", qPrintable(text));
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // Sockets and timers need an application object; it lives until exit.
    static int argc = 1;
    static char name[] = "tarn-fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler(QuietMessages);
    return 0;
}

namespace TarnFuzz {

QString Utf8Text(const uint8_t *data, size_t size)
{
    return QString::fromUtf8(reinterpret_cast<const char *>(data), int(size));
}

void Require(bool condition, const char *property)
{
    if (condition)
        return;
    std::fprintf(stderr, "Property violated: %s\n", property);
    std::abort();
}

} // namespace TarnFuzz
