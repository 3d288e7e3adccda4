#pragma once

#include "exitcode.h"

class QCommandLineParser;
class QTextStream;

namespace Tarn {

// Prints the help or the version when the parsed arguments ask for either;
// true when it did, and the program is then done.
bool AnswerHelpOrVersion(const QCommandLineParser &parser, QTextStream &out);

} // namespace Tarn
