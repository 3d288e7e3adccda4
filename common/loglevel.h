#pragma once

#include <QtGlobal>

// The kind of a log line, as the Log signals and the log window carry it.
namespace LogLevel {
enum : quint32 { Info = 0, Warning = 1, Error = 2 };
} // namespace LogLevel
