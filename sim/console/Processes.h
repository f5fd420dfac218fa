#pragma once

#include <QList>
#include <QString>

struct Process {
    int pid;
    unsigned uid;
    unsigned gid;
    QString user;
    // The program and its arguments.
    QString command;

    // Whether the account is one of an application.
    bool IsApplication() const;
};

// The processes of this terminal by ascending id, kernel threads and zombies left out.
QList<Process> ListProcesses();
