#include "CommandLine.h"

#include "Output.h"
#include "Verbs.h"

#include <QTextStream>

#include <unistd.h>

#include <algorithm>

namespace kxctl {
namespace {

constexpr int kDefaultTimeout = 900; // a USB reload or a restart holds the daemon for minutes
constexpr int kLongestTimeout = 24 * 60 * 60;
constexpr int kMilliseconds = 1000;

/// What the overview shows under one title.
struct VerbGroup {
    const char* title;
    std::vector<const std::vector<Verb>*> tables;
};

const std::vector<Option>& CommonOptions()
{
    static const std::vector<Option> options{
        {"json", nullptr, "print the answer as JSON"},
        {"timeout", "SECONDS", "wait for the daemon at most this long (default 900)"},
        {"help", nullptr, "show this help"},
    };
    return options;
}

/// Options that stand before the verb.
std::vector<Option> GlobalOptions()
{
    std::vector<Option> options = CommonOptions();
    options.push_back({"version", nullptr, "show the version"});
    return options;
}

const std::vector<VerbGroup>& Groups()
{
    static const std::vector<VerbGroup> groups{
        {"Applications", {&ApplicationVerbs()}},
        {"Time and settings", {&TimeVerbs()}},
        {"System", {&SystemVerbs()}},
        {"Watching and checking", {&MonitorVerbs(), &CheckVerbs()}},
    };
    return groups;
}

std::vector<const Verb*> VerbsOf(const VerbGroup& group)
{
    std::vector<const Verb*> verbs;
    for (const std::vector<Verb>* table : group.tables) {
        for (const Verb& verb : *table) {
            verbs.push_back(&verb);
        }
    }
    return verbs;
}

std::vector<const Verb*> AllVerbs()
{
    std::vector<const Verb*> all;
    for (const VerbGroup& group : Groups()) {
        const auto verbs = VerbsOf(group);
        all.insert(all.end(), verbs.begin(), verbs.end());
    }
    return all;
}

int WordsOf(const Verb& verb)
{
    return QString(verb.name).count(' ') + 1;
}

/// \return the verb whose words \a words begins with, the longest one; null when there is none
const Verb* FindVerb(const QStringList& words)
{
    const Verb* found = nullptr;
    for (const Verb* verb : AllVerbs()) {
        const int count = WordsOf(*verb);
        if (words.mid(0, count).join(' ') == verb->name && (found == nullptr || count > WordsOf(*found))) {
            found = verb;
        }
    }
    return found;
}

std::vector<const Verb*> VerbsBelow(const QString& word)
{
    std::vector<const Verb*> found;
    for (const Verb* verb : AllVerbs()) {
        if (QString(verb->name).startsWith(word + ' ')) {
            found.push_back(verb);
        }
    }
    return found;
}

void AddOptions(QCommandLineParser& parser, const std::vector<Option>& options)
{
    for (const Option& option : options) {
        QStringList names(option.name);
        if (names.contains("help")) {
            names.prepend("h");
        }
        parser.addOption(QCommandLineOption(names, option.purpose, option.value));
    }
}

QString Synopsis(const Verb& verb)
{
    const QString options = "[OPTION]...";
    const QStringList words = verb.passesOptions ? QStringList{"kxctl", verb.name, options, verb.arguments}
                                                 : QStringList{"kxctl", verb.name, verb.arguments, options};
    return words.join(' ').simplified();
}

/// \return Qt's sentence as a part of ours
QString Clause(const QString& sentence)
{
    const QString text = sentence.mid(0, 1).toLower() + sentence.mid(1);
    return text.endsWith('.') ? text.chopped(1) : text;
}

QString Capitalized(const QString& text)
{
    return text.mid(0, 1).toUpper() + text.mid(1);
}

Table OptionTable(const std::vector<Option>& options)
{
    Table table;
    for (const Option& option : options) {
        const QString value = option.value != nullptr ? QString(' ') + option.value : QString();
        table.Add({QStringLiteral("--") + option.name + value, option.purpose});
    }
    return table;
}

Table VerbTable(const std::vector<const Verb*>& verbs)
{
    Table table;
    for (const Verb* verb : verbs) {
        table.Add({QStringLiteral("%1 %2").arg(verb->name, verb->arguments).trimmed(), verb->summary});
    }
    return table;
}

void PrintVerbHelp(const Verb& verb)
{
    Print("Usage: " + Synopsis(verb) + "\n\n" + Capitalized(verb.summary) + '.');
    if (*verb.details != '\0') {
        Print(QString('\n') + verb.details);
    }
    Print({});
    std::vector<Option> options = verb.options;
    options.insert(options.end(), CommonOptions().begin(), CommonOptions().end());
    OptionTable(options).Print(2);
    const auto further = VerbsBelow(verb.name);
    if (!further.empty()) {
        Print("\nSee also:");
        VerbTable(further).Print(2);
    }
}

void PrintGroupHelp(const QString& word, const std::vector<const Verb*>& verbs)
{
    Print("Usage: kxctl " + word + " OPERATION [ARGUMENT]... [OPTION]...\n");
    VerbTable(verbs).Print(2);
    Print("\nkxctl " + word + " OPERATION --help tells more.");
}

void PrintOverview()
{
    Print("Usage: kxctl VERB [ARGUMENT]... [OPTION]...\n\n"
          "Asks the terminal's core management daemon, and checks applications without it.");
    for (const VerbGroup& group : Groups()) {
        Print(QString('\n') + group.title + ':');
        VerbTable(VerbsOf(group)).Print(2);
    }
    Print("\nOptions:");
    OptionTable(GlobalOptions()).Print(2);
    Print("\nkxctl VERB --help tells more. Exit status: 0 done, 1 the daemon said no, 2 wrong usage,\n"
          "3 the daemon is not reachable.");
}

int TimeoutOf(const QCommandLineParser& first, const QCommandLineParser& second)
{
    const QString text = second.isSet("timeout") ? second.value("timeout") : first.value("timeout");
    if (text.isEmpty() && !first.isSet("timeout") && !second.isSet("timeout")) {
        return kDefaultTimeout * kMilliseconds;
    }
    bool isNumber = false;
    const int seconds = text.toInt(&isNumber);
    if (!isNumber || seconds < 1 || seconds > kLongestTimeout) {
        throw Failure(Misuse, QStringLiteral("--timeout: '%1' is no number of seconds").arg(text));
    }
    return seconds * kMilliseconds;
}

ExitStatus RunVerb(const Verb& verb, const QStringList& words, const QCommandLineParser& common)
{
    QCommandLineParser parser;
    AddOptions(parser, CommonOptions());
    AddOptions(parser, verb.options);
    if (verb.passesOptions) {
        parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    }
    if (!parser.parse(QStringList("kxctl") + words.mid(WordsOf(verb)))) {
        throw Misused(verb.name, parser.errorText());
    }
    if (parser.isSet("help") || common.isSet("help")) {
        PrintVerbHelp(verb);
        return Success;
    }
    const QStringList arguments = parser.positionalArguments();
    if (arguments.size() > verb.most) {
        throw Misused(verb.name, QStringLiteral("unexpected argument '%1'").arg(arguments.at(verb.most)));
    }
    if (arguments.size() < verb.least) {
        throw Misused(verb.name, QStringLiteral("needs %1").arg(verb.arguments));
    }
    return verb.run(
        {arguments, parser, parser.isSet("json") || common.isSet("json"), TimeoutOf(common, parser)});
}

ExitStatus RunWords(const QStringList& words, const QCommandLineParser& common)
{
    if (const Verb* verb = FindVerb(words)) {
        return RunVerb(*verb, words, common);
    }
    const auto operations = VerbsBelow(words.first());
    if (operations.empty()) {
        throw Failure(Misuse, QStringLiteral("unknown verb '%1'; see kxctl --help").arg(words.first()));
    }
    const QString next = words.value(1);
    if (next == "--help" || next == "-h" || common.isSet("help")) {
        PrintGroupHelp(words.first(), operations);
        return Success;
    }
    throw Misused(words.first(), next.isEmpty() ? QStringLiteral("needs an operation")
                                                : QStringLiteral("unknown operation '%1'").arg(next));
}

} // namespace

std::vector<Verb> Joined(std::vector<Verb> first, const std::vector<Verb>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Failure Misused(const QString& verb, const QString& message)
{
    return {Misuse, QStringLiteral("%1: %2; see kxctl %1 --help").arg(verb, Clause(message))};
}

ExitStatus RunCommandLine(const QStringList& arguments)
{
    QCommandLineParser common;
    AddOptions(common, GlobalOptions());
    common.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    if (!common.parse(arguments)) {
        throw Failure(Misuse, Clause(common.errorText()) + "; see kxctl --help");
    }
    const QStringList words = common.positionalArguments();
    if (common.isSet("version")) {
        Print("kxctl " KX_VERSION);
        return Success;
    }
    if (!words.isEmpty()) {
        return RunWords(words, common);
    }
    if (!common.isSet("help")) {
        throw Failure(Misuse, "no verb given; see kxctl --help");
    }
    PrintOverview();
    return Success;
}

void Confirm(const QString& question, const QString& verb)
{
    if (isatty(STDIN_FILENO) == 0) {
        throw Misused(verb, "not without --yes when there is no terminal to ask on");
    }
    Tell(question + " [y/N] ");
    const QString answer = QTextStream(stdin).readLine().trimmed().toLower();
    if (answer != "y" && answer != "yes") {
        throw Failure(Refused, "nothing was done");
    }
}

} // namespace kxctl
