#pragma once

#include "LineEditor.h"
#include "LogTail.h"
#include "Terminal.h"

// The commands that a person gives to the terminal.
class Prompt : public QObject {
    Q_OBJECT

public:
    Prompt(Terminal& terminal, Screen& screen, const LogTail& log, QObject* parent = nullptr);
    ~Prompt() override; ///< ends what the shell still runs

signals:
    void Quit();

private:
    struct Command {
        const char* name;
        const char* arguments;
        const char* description;
        void (Prompt::*run)(const QStringList&);
    };
    static const QList<Command>& Commands();

    /// Takes a line, or a part of one that ends with a backslash.
    void Take(const QString& line);
    void Execute(const QString& line);
    /// Shows what the command line prints, as it comes; the prompt does not wait for it.
    void RunInShell(const QString& line);
    /// Sends the signal to whatever runs in the shell; false when nothing does.
    bool Signal(int signal);
    void Interrupt();
    void Help(const QStringList& words);
    void Apps(const QStringList& words);
    void Processes(const QStringList& words);
    void Start(const QStringList& words);
    void Boot(const QStringList& words);
    void Terminate(const QStringList& words);
    void Restart(const QStringList& words);
    void Page(const QStringList& words);
    void Log(const QStringList& words);
    void Leave(const QStringList& words);
    void Report(bool success, const QString& text);

    Terminal& m_terminal;
    Screen& m_screen;
    const LogTail& m_log;
    LineEditor m_editor;
    QString m_begun;
};
