#ifndef PRINTABLE_H
#define PRINTABLE_H

#include <QString>

namespace Tarn {

// Characters a terminal or a log reader may act on instead of showing them:
// C0 and C1 controls (NUL, which ends a journal line, among them), DEL, format
// characters such as bidirectional overrides, and line and paragraph
// separators.
bool IsUnsafeForTerminal(uint ucs4);

// Text that came from a peer, each unsafe character shown as U+FFFD (toUcs4
// already makes unpaired surrogates one).
QString Printable(const QString &text);

} // namespace Tarn

#endif // PRINTABLE_H
