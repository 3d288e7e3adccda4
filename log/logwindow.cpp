#include "logwindow.h"
#include "ui_logwindow.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QMenu>
#include <QMessageBox>
#include <QTextStream>

namespace {

enum Level : quint32 { Info = 0, Warning = 1, Error = 2 };

QString LevelName(quint32 type)
{
    switch (type) {
    case Warning: return QStringLiteral("Warning");
    case Error: return QStringLiteral("Error");
    default: return QStringLiteral("Info");
    }
}

QString LevelColor(quint32 type)
{
    switch (type) {
    case Warning: return QStringLiteral("blue");
    case Error: return QStringLiteral("red");
    default: return QStringLiteral("black");
    }
}

} // namespace

LogWindow::LogWindow(QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::LogWindow)
    , logFolder(QCoreApplication::applicationDirPath())
{
    ui->setupUi(this);
    ui->plainTextEdit->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(ui->plainTextEdit, &QPlainTextEdit::customContextMenuRequested, this, &LogWindow::ShowContextMenu);
}

LogWindow::~LogWindow()
{
    delete ui;
}

QSize LogWindow::sizeHint() const
{
    return QSize(500, 400);
}

void LogWindow::SetLogFile(bool enable, const QString &folder)
{
    logToFile = enable;
    logFolder = folder;
}

void LogWindow::RemoveLogFile()
{
    QFile::remove(LogFilePath());
}

QString LogWindow::LogFilePath() const
{
    return QStringLiteral("%1/TarnSrvSvc.html").arg(logFolder);
}

QString LogWindow::FormatLine(quint32 type, const QString &stamp, const QString &text)
{
    // One placeholder at a time, the message last, so "%1" inside it stays literal.
    return QStringLiteral("<font color=\"%1\">%2 - %3 : %4</font>")
        .arg(LevelColor(type))
        .arg(stamp)
        .arg(LevelName(type))
        .arg(text);
}

void LogWindow::Log(const QString &text, quint32 type, bool msgBox)
{
    const QStringList parts = text.split(QLatin1Char('\n'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    for (const QString &part : parts) {
        const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("dd.MM.yyyy HH:mm:ss"));
        AppendPlainHtml(FormatLine(type, stamp, part));
    }
    if (msgBox)
        ShowMessageBox(text, type);
}

void LogWindow::ShowMessageBox(const QString &text, quint32 type)
{
    const QString title = QStringLiteral("VARNOK Manager");
    switch (type) {
    case Warning: QMessageBox::warning(this, title, text, QMessageBox::Ok); break;
    case Error: QMessageBox::critical(this, title, text, QMessageBox::Ok); break;
    default: QMessageBox::information(this, title, text, QMessageBox::Ok); break;
    }
}

void LogWindow::AppendPlainHtml(const QString &html)
{
    ui->plainTextEdit->appendHtml(html);
    if (logToFile)
        AppendToFile(html);
}

// Opened and closed per line; a folder that is missing or read-only leaves only the view.
void LogWindow::AppendToFile(const QString &html) const
{
    QFile file(LogFilePath());
    if (!file.open(QIODevice::Append | QIODevice::Text))
        return;
    QTextStream out(&file);
    // Guest names need not be ASCII: UTF-8, marked for browsers when a file begins.
    out.setCodec("UTF-8");
    out.setGenerateByteOrderMark(file.size() == 0);
    out << html << "<br>";
}

void LogWindow::ShowContextMenu(const QPoint &pos)
{
    QMenu *menu = ui->plainTextEdit->createStandardContextMenu();
    menu->addSeparator();
    menu->addAction(QStringLiteral("Clear All"), this, &LogWindow::ClearAll, QKeySequence());
    menu->exec(ui->plainTextEdit->mapToGlobal(pos));
    delete menu;
}

void LogWindow::ClearAll()
{
    ui->plainTextEdit->clear();
}
