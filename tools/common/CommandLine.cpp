#include "CommandLine.h"

#include "Output.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTextStream>

#include <unistd.h>

#include <algorithm>

namespace cli {
namespace {

const Option kHelp{"help", nullptr, "show this help"};
const Option kVersion{"version", nullptr, "show the version"};

/// \return the words of a verb, which begin its synopsis
QStringList WordsOf(const Verb& verb)
{
    static const QRegularExpression words("^[a-z]+( [a-z]+)*(?= |$)");
    return words.match(verb.synopsis).captured().split(' ');
}

QString NameOf(const Verb& verb)
{
    return WordsOf(verb).join(' ');
}

QStringList ArgumentsOf(const Verb& verb)
{
    return QString(verb.synopsis).split(' ').mid(WordsOf(verb).size());
}

/// \return the words that {a|b} or [a|b] offers; none for anything else
QStringList ChoicesOf(const QString& placeholder)
{
    static const QRegularExpression choices(R"(^[\[{](\w+(\|\w+)+)[\]}]$)");
    return choices.match(placeholder).captured(1).split('|', Qt::SkipEmptyParts);
}

/// \return what is wrong with a value whose placeholder offers a choice; empty when nothing is
QString NoChoice(const QString& value, const QString& placeholder)
{
    const QStringList choices = ChoicesOf(placeholder);
    return choices.isEmpty() || choices.contains(value)
               ? QString()
               : QStringLiteral("'%1' is none of %2").arg(value, choices.join(", "));
}

std::vector<const Verb*> AllVerbs(const Program& program)
{
    std::vector<const Verb*> all;
    for (const VerbGroup& group : program.groups) {
        std::transform(group.verbs.begin(), group.verbs.end(), std::back_inserter(all),
                       [](const Verb& verb) { return &verb; });
    }
    return all;
}

/// \return the verb that \a words begins with, the longest one; null when there is none
const Verb* FindVerb(const Program& program, const QStringList& words)
{
    const Verb* found = nullptr;
    for (const Verb* verb : AllVerbs(program)) {
        const QStringList name = WordsOf(*verb);
        if (words.mid(0, name.size()) == name && (found == nullptr || name.size() > WordsOf(*found).size())) {
            found = verb;
        }
    }
    return found;
}

std::vector<Verb> VerbsBelow(const Program& program, const QString& name)
{
    std::vector<Verb> found;
    for (const Verb* verb : AllVerbs(program)) {
        if (QString(verb->synopsis).startsWith(name + ' ') && NameOf(*verb) != name) {
            found.push_back(*verb);
        }
    }
    return found;
}

void AddOptions(QCommandLineParser& parser, const std::vector<Option>& options)
{
    for (const Option& option : options) {
        parser.addOption(QCommandLineOption(option.name, option.purpose, option.value));
    }
    parser.addOption(QCommandLineOption({"h", kHelp.name}, kHelp.purpose));
}

/// \return Qt's sentence as a part of ours
QString Clause(const QString& sentence)
{
    const QString text = sentence.mid(0, 1).toLower() + sentence.mid(1);
    return text.endsWith('.') ? text.chopped(1) : text;
}

void PrintOptions(std::vector<Option> options)
{
    Table table;
    options.push_back(kHelp);
    for (const Option& option : options) {
        const QString value = option.value != nullptr ? QString(' ') + option.value : QString();
        table.Add({QStringLiteral("--") + option.name + value, option.purpose});
    }
    table.Print(2);
}

void PrintVerbs(const std::vector<Verb>& verbs)
{
    Table table;
    for (const Verb& verb : verbs) {
        table.Add({verb.synopsis, verb.summary});
    }
    table.Print(2);
}

void PrintVerbHelp(const Program& program, const Verb& verb)
{
    const QString arguments = ArgumentsOf(verb).join(' ');
    const QString format = verb.passesOptions ? "Usage: %1 %2 [OPTION]... %3" : "Usage: %1 %2 %3 [OPTION]...";
    const QString summary = verb.summary;
    Print(format.arg(program.name, NameOf(verb), arguments).simplified() + "\n\n" +
          summary.mid(0, 1).toUpper() + summary.mid(1) + '.');
    if (*verb.details != '\0') {
        Print(QString('\n') + verb.details);
    }
    Print({});
    std::vector<Option> options = verb.options;
    options.insert(options.end(), program.options.begin(), program.options.end());
    PrintOptions(options);
    const std::vector<Verb> further = VerbsBelow(program, NameOf(verb));
    if (!further.empty()) {
        Print("\nSee also:");
        PrintVerbs(further);
    }
}

void PrintOverview(const Program& program)
{
    Print(
        QStringLiteral("Usage: %1 VERB [ARGUMENT]... [OPTION]...\n\n%2").arg(program.name, program.purpose));
    for (const VerbGroup& group : program.groups) {
        Print(QString('\n') + group.title + ':');
        PrintVerbs(group.verbs);
    }
    Print("\nOptions:");
    std::vector<Option> options = program.options;
    options.push_back(kVersion);
    PrintOptions(options);
    Print(QString('\n') + program.hint);
}

void CheckArguments(const Request& request)
{
    const QStringList& given = request.arguments;
    const QStringList wanted = ArgumentsOf(request.verb);
    const auto isOptional = [](const QString& argument) { return argument.contains(QRegExp(R"([\[\]])")); };
    const auto least = std::count_if(wanted.begin(), wanted.end(), std::not_fn(isOptional));
    if (given.size() < least) {
        throw request.Misused("needs " + wanted.join(' '));
    }
    if (given.size() > wanted.size() && !wanted.join(' ').contains("...")) {
        throw request.Misused(QStringLiteral("unexpected argument '%1'").arg(given.at(wanted.size())));
    }
    for (int index = 0; index < std::min(given.size(), wanted.size()); ++index) {
        const QString problem = NoChoice(given.at(index), wanted.at(index));
        if (!problem.isEmpty()) {
            throw request.Misused(problem);
        }
    }
    for (const Option& option : request.verb.options) {
        const QString problem = request.IsSet(option.name) && option.value != nullptr
                                    ? NoChoice(request.Value(option.name), option.value)
                                    : QString();
        if (!problem.isEmpty()) {
            throw request.Misused(QStringLiteral("--%1: %2").arg(option.name, problem));
        }
    }
}

ExitStatus RunVerb(const Program& program, const Verb& verb, const QStringList& words,
                   const QCommandLineParser& common)
{
    QCommandLineParser parser;
    AddOptions(parser, program.options);
    for (const Option& option : verb.options) {
        parser.addOption(QCommandLineOption(option.name, option.purpose, option.value));
    }
    if (verb.passesOptions) {
        parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    }
    const bool isParsed = parser.parse(words.mid(WordsOf(verb).size() - 1));
    const Request request{verb, parser.positionalArguments(), common, parser};
    if (!isParsed) {
        throw request.Misused(Clause(parser.errorText()));
    }
    if (request.IsSet("help")) {
        PrintVerbHelp(program, verb);
        return Success;
    }
    CheckArguments(request);
    return verb.run(request);
}

ExitStatus RunWords(const Program& program, const QStringList& words, const QCommandLineParser& common)
{
    if (const Verb* verb = FindVerb(program, words)) {
        return RunVerb(program, *verb, words, common);
    }
    const QString& first = words.first();
    const std::vector<Verb> operations = VerbsBelow(program, first);
    if (operations.empty()) {
        throw Failure(Misuse, QStringLiteral("unknown verb '%1'; see %2 --help").arg(first, program.name));
    }
    const QString next = words.value(1);
    if (next == "--help" || next == "-h" || common.isSet("help")) {
        Print(QStringLiteral("Usage: %1 %2 OPERATION [ARGUMENT]... [OPTION]...\n").arg(program.name, first));
        PrintVerbs(operations);
        return Success;
    }
    const QString problem =
        next.isEmpty() ? "needs an operation" : QStringLiteral("unknown operation '%1'").arg(next);
    throw Failure(Misuse, QStringLiteral("%1: %2; see %3 %1 --help").arg(first, problem, program.name));
}

ExitStatus RunCommandLine(const Program& program, QStringList arguments)
{
    if (arguments.value(1) == "help") {
        // "help VERB" is "--help VERB".
        arguments[1] = "--help";
    }
    QCommandLineParser common;
    AddOptions(common, program.options);
    common.addOption(QCommandLineOption(kVersion.name, kVersion.purpose));
    common.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!common.parse(arguments)) {
        throw Failure(Misuse,
                      QStringLiteral("%1; see %2 --help").arg(Clause(common.errorText()), program.name));
    }
    if (common.isSet("version")) {
        Print(QStringLiteral("%1 " KX_VERSION).arg(program.name));
        return Success;
    }
    const QStringList words = common.positionalArguments();
    if (!words.isEmpty()) {
        return RunWords(program, words, common);
    }
    if (!common.isSet("help")) {
        throw Failure(Misuse, QStringLiteral("no verb given; see %1 --help").arg(program.name));
    }
    PrintOverview(program);
    return Success;
}

/// Messages of the libraries are for the person in front of the terminal, not for the system's log.
void ShowMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
{
    if (type != QtDebugMsg && type != QtInfoMsg) {
        Complain(text);
    }
}

} // namespace

bool Request::IsSet(const char* option) const
{
    return own.isSet(option) || common.optionNames().contains(option);
}

QString Request::Value(const char* option) const
{
    return own.isSet(option) || !IsSet(option) ? own.value(option) : common.value(option);
}

Failure Request::Misused(const QString& message) const
{
    return {Misuse, QStringLiteral("%1: %2; see %3 %1 --help")
                        .arg(NameOf(verb), message, QCoreApplication::applicationName())};
}

int Main(int argc, char** argv, const Program& program)
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(program.name);
    qInstallMessageHandler(ShowMessage);
    // Arguments are UTF-8 whatever the locale, as is the output.
    QStringList arguments;
    for (int index = 0; index < argc; ++index) {
        arguments.append(QString::fromUtf8(argv[index]));
    }
    ExitStatus status = Success;
    try {
        status = RunCommandLine(program, arguments);
    } catch (const Failure& failure) {
        Complain(QString::fromUtf8(failure.what()));
        status = failure.Status();
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        Complain("cannot write to standard output");
        return status == Success ? Refused : status;
    }
    return status;
}

void Confirm(const Request& request, const QString& question)
{
    if (request.IsSet("yes")) {
        return;
    }
    if (isatty(STDIN_FILENO) == 0) {
        throw request.Misused("not without --yes when there is no terminal to ask on");
    }
    Tell(question + " [y/N] ");
    const QString answer = QTextStream(stdin).readLine().trimmed().toLower();
    if (answer != "y" && answer != "yes") {
        throw Failure(Refused, "nothing was done");
    }
}

} // namespace cli
