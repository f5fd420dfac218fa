#pragma once

#include "Failure.h"

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <vector>

namespace cli {

struct Option {
    const char* name;
    const char* value; ///< its value's name, or the words to choose from as {a|b}; null for a switch
    const char* purpose;
};

struct Request;

/// One entry of the command line's table.
struct Verb {
    /// Its words in lower case, then its arguments: what may be left out in brackets, words to choose from
    /// as {a|b}, any number as ...
    const char* synopsis;
    const char* summary;
    ExitStatus (*run)(const Request& request);
    const char* details = ""; ///< further lines of the help
    std::vector<Option> options = {};
    /// Everything after the first argument is data, also what looks like an option.
    bool passesOptions = false;
};

/// One verb's command line, taken apart.
struct Request {
    const Verb& verb;
    QStringList arguments;
    const QCommandLineParser& common; ///< the options before the verb
    const QCommandLineParser& own;    ///< those after it

    bool IsSet(const char* option) const;
    QString Value(const char* option) const;

    /// \return a failure that tells how the verb wants to be called
    Failure Misused(const QString& message) const;
};

/// What the help shows under one title.
struct VerbGroup {
    const char* title;
    std::vector<Verb> verbs;
};

struct Program {
    const char* name;
    const char* purpose;
    std::vector<Option> options; ///< that all verbs have, besides --help
    std::vector<VerbGroup> groups;
    const char* hint; ///< last line of the help
};

/// Runs the verb that the command line names, or shows the help it asks for. Failures are told on standard
/// error.
/// \return the program's exit status
int Main(int argc, char** argv, const Program& program);

/// Has a person confirm, unless --yes is given. Throws Failure with Misuse when there is no terminal to ask
/// on, and with Refused when the answer is anything but yes.
void Confirm(const Request& request, const QString& question);

} // namespace cli
