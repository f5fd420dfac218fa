#pragma once

#include "Failure.h"

#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <vector>

namespace kxctl {

/// One verb's command line, taken apart.
struct Request {
    QStringList arguments;
    const QCommandLineParser& options;
    bool isJson; ///< answer machines
    int timeout; ///< how long to wait for an answer of the daemon, in milliseconds
};

struct Option {
    const char* name;
    const char* value; ///< what the help calls its value; null for a switch
    const char* purpose;
};

/// One entry of the command line's table. A name may be of several words.
struct Verb {
    const char* name;
    const char* arguments; ///< as the help shows them
    int least;             ///< number of arguments
    int most;
    const char* summary;
    const char* details; ///< further lines of the help
    std::vector<Option> options;
    ExitStatus (*run)(const Request& request);
    /// Everything after the first argument is meant for a program, also what looks like an option.
    bool passesOptions = false;
};

constexpr int kAnyNumber = 1000;

/// \return both tables as one
std::vector<Verb> Joined(std::vector<Verb> first, const std::vector<Verb>& second);

/// Runs the verb that a command line names, or shows the help it asks for.
///
/// \param arguments  the command line, the program's name first
/// \return the verb's status; throws Failure with Misuse when the command line makes no sense, and whatever
///         Failure the verb ends with
ExitStatus RunCommandLine(const QStringList& arguments);

/// \return a failure that tells how the verb wants to be called
Failure Misused(const QString& verb, const QString& message);

/// Has a person confirm. Throws Failure with Misuse when there is no terminal to ask on, and with Refused
/// when the answer is anything but yes.
void Confirm(const QString& question, const QString& verb);

} // namespace kxctl
