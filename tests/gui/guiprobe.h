#pragma once

#include "tarnsrvgui.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QTreeWidget>

// Reaches the window's widgets by their object names, as an operator sees them.
struct GuiProbe
{
    explicit GuiProbe(TarnSrvGui &w) : window(w) {}

    template <typename T> T *Get(const char *name) const
    {
        return window.findChild<T *>(QLatin1String(name));
    }
    QString Status() const { return Get<QLabel>("serverStatusValue_label")->text(); }
    QComboBox *PortMode() const { return Get<QComboBox>("portNr_comboBox"); }
    QLineEdit *PortEdit() const { return Get<QLineEdit>("porNr_lineEdit"); }
    QCheckBox *AutoStart() const { return Get<QCheckBox>("autoStart_checkBox"); }
    QPushButton *Button(const char *name) const { return Get<QPushButton>(name); }
    QTreeWidget *Tree() const { return Get<QTreeWidget>("server_treeWidget"); }
    QPlainTextEdit *LogView() const { return window.findChild<QPlainTextEdit *>(); }

    // The port of the last "started on port" line of the log, 0 when none.
    quint16 ListeningPort() const
    {
        static const QRegularExpression started(QStringLiteral("Tarn server started on port (\\d+)\\."));
        QRegularExpressionMatchIterator it = started.globalMatch(LogView()->toPlainText());
        quint16 port = 0;
        while (it.hasNext())
            port = quint16(it.next().captured(1).toUInt());
        return port;
    }

    TarnSrvGui &window;
};

inline QString Colored(const QString &text, const QString &color)
{
    return QStringLiteral("<font color=%1>%2</font>").arg(color, text);
}

#include <QApplication>
#include <QTemporaryDir>
#include <QtTest>

// A test main whose settings store and single-instance lock live in a
// private folder, so the operator's own settings are never read or written
// and a manager running on the machine does not refuse the test's windows.
// The programs the tests start inherit both.
#define TARN_GUI_TEST_MAIN(TestClass)                                             \
    int main(int argc, char *argv[])                                             \
    {                                                                            \
        QTemporaryDir config;                                                    \
        qputenv("XDG_CONFIG_HOME", config.path().toLocal8Bit());                 \
        qputenv("TARN_INSTANCE_LOCK", config.filePath("instance.lock").toLocal8Bit()); \
        QApplication app(argc, argv);                                            \
        TestClass test;                                                          \
        return QTest::qExec(&test, argc, argv);                                  \
    }
