#pragma once

#include "Store.h"

#include <QString>
#include <QStringList>

namespace com::veltrasys::registry {

/// Exit status of the tool.
enum Status { Done = 0, Failed = 1, Misused = 2 };

/// One command of the tool.
struct Command {
    const char* name;
    /// Least and greatest number of arguments.
    int least;
    int most;
    /// As the usage shows them.
    const char* arguments;
    const char* purpose;
    Status (*run)(const QStringList& arguments);
};

/// \return the command of that name; null when there is none
const Command* FindCommand(const QString& name);

/// \return one line per command for the help text
QString DescribeCommands();

/// Writes \a line and a newline to standard output at once.
/// \return whether it was taken
bool PrintLine(const QString& line);

/// Writes "kxregistry: ", \a text and a newline to standard error.
void Complain(const QString& text);

/// The entry or the change as one line: KEY=VALUE, or KEY deleted; both escaped as in the store.
QString DescribeChange(const Change& change);

/// Prints a line for each change of one of \a keys, of all keys when there are none, until SIGINT or SIGTERM
/// comes. Needs the application object, whose event loop it runs.
Status Watch(const QStringList& keys);

} // namespace com::veltrasys::registry
