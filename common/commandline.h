#pragma once

class QCommandLineParser;
class QTextStream;

namespace Tarn {

// What a command-line program ends with.
enum ExitCode { Ok = 0, Failed = 1, Usage = 2 };

// Prints the help or the version when the parsed arguments ask for either;
// true when it did, and the program is then done.
bool AnswerHelpOrVersion(const QCommandLineParser &parser, QTextStream &out);

} // namespace Tarn
