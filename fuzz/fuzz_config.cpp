// The configuration file next to the manager, read line by line. The input is
// written to a temporary file (in /dev/shm when there is one) and read back the
// way the manager opens it; the whole input is also given to the line parser as
// one line, with characters a line read from a file never holds.

#include "fuzzsupport.h"
#include "tarnsrvsettings.h"

#include <QDir>
#include <QFile>
#include <QTemporaryFile>

using TarnFuzz::Require;

namespace {

QTemporaryFile &Scratch()
{
    static QTemporaryFile file(QDir(QStringLiteral("/dev/shm")).exists()
                                   ? QStringLiteral("/dev/shm/tarn-fuzz-XXXXXX.cfg")
                                   : QDir::tempPath() + QStringLiteral("/tarn-fuzz-XXXXXX.cfg"));
    static const bool opened = file.open();
    Require(opened, "the scratch file can be created");
    return file;
}

void WriteScratch(const uint8_t *data, size_t size)
{
    QTemporaryFile &file = Scratch();
    Require(file.resize(0) && file.seek(0), "the scratch file can be emptied");
    Require(file.write(reinterpret_cast<const char *>(data), qint64(size)) == qint64(size) && file.flush(),
            "the scratch file can be written");
}

void ParseFile()
{
    QFile file(Scratch().fileName());
    Require(file.open(QIODevice::ReadOnly | QIODevice::Text), "the scratch file can be read");
    ConfigValues values;
    QString report;
    const bool valid = TarnSrvSettings::ParseConfigStream(file, values, report);
    Require(!valid || values.port != 0, "a valid file sets a port");
    Require(valid || !report.isEmpty(), "an invalid file is reported");
}

void ParseLine(const uint8_t *data, size_t size)
{
    ConfigValues values;
    QString report;
    TarnSrvSettings::ParseConfigLine(1, TarnFuzz::Utf8Text(data, size), values, report);
    Require(report.endsWith(QLatin1Char('\n')), "every line is reported");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    WriteScratch(data, size);
    ParseFile();
    ParseLine(data, size);
    return 0;
}
