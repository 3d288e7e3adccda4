#include "logwindow.h"
#include "ui_logwindow.h"

#include "loglevel.h"
#include "product.h"

#include <QMenu>
#include <QMessageBox>
#include <QTextBlock>

LogWindow::LogWindow(QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::LogWindow)
{
    ui->setupUi(this);
    ui->plainTextEdit->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(ui->plainTextEdit, &QPlainTextEdit::customContextMenuRequested, this, &LogWindow::ShowContextMenu);
    connect(&sink, &LogSink::Shown, this, &LogWindow::AppendToView);
    connect(&sink, &LogSink::MessageRequested, this, &LogWindow::ShowMessageBox);
}

LogWindow::~LogWindow()
{
    delete ui;
}

QSize LogWindow::sizeHint() const
{
    return QSize(500, 400);
}

void LogWindow::Log(const QString &text, quint32 type, bool msgBox)
{
    sink.Log(text, type, msgBox);
}

void LogWindow::ShowMessageBox(const QString &text, quint32 type)
{
    const QString title = Tarn::ManagerName();
    switch (type) {
    case LogLevel::Warning: QMessageBox::warning(this, title, text, QMessageBox::Ok); break;
    case LogLevel::Error: QMessageBox::critical(this, title, text, QMessageBox::Ok); break;
    default: QMessageBox::information(this, title, text, QMessageBox::Ok); break;
    }
}

// Trimmed in batches, not per line: each removal lays out the new top line
// again, which per line nearly doubles the cost of logging once the view is full.
void LogWindow::AppendToView(const QString &html)
{
    ui->plainTextEdit->appendHtml(html);
    QTextDocument *document = ui->plainTextEdit->document();
    if (document->blockCount() <= MaxViewLines)
        return;
    const int drop = document->blockCount() - MaxViewLines + ViewTrimLines;
    QTextCursor cursor(document);
    cursor.setPosition(document->findBlockByNumber(drop).position(), QTextCursor::KeepAnchor);
    cursor.removeSelectedText();
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
