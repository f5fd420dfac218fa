// How the console shows what it knows about the terminal.
#pragma once

#include "Processes.h"
#include "Screen.h"

#include <QVariantMap>

// The applications of an Enumerate reply.
void ShowApplications(Screen& screen, const QList<QVariantMap>& applications);

// The processes of the applications and of the platform's services, each with its account.
void ShowProcesses(Screen& screen, const QList<Process>& processes);

// The page on the browser's screen.
void ShowPage(Screen& screen, const QVariantMap& page);

// One line of the log. A core daemon's record is laid out by time, level, place and text.
void ShowLogLine(Screen& screen, const QString& line);
