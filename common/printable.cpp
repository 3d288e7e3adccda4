#include "printable.h"

#include <QVector>

bool Tarn::IsUnsafeForTerminal(uint ucs4)
{
    switch (QChar::category(ucs4)) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

QString Tarn::Printable(const QString &text)
{
    QString shown;
    shown.reserve(text.size());
    for (const uint ucs4 : text.toUcs4())
        shown += IsUnsafeForTerminal(ucs4) ? QString(QChar::ReplacementCharacter) : QString::fromUcs4(&ucs4, 1);
    return shown;
}
