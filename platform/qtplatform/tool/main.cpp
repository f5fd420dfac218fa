#include "Commands.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <cstdio>
#include <optional>

using namespace com::veltrasys::registry;

namespace {

/// Keys and values are UTF-8 whatever the locale, which start-up scripts usually lack.
std::optional<QStringList> Utf8Arguments(int argc, char** argv)
{
    QStringList arguments;
    for (int index = 0; index < argc; ++index) {
        arguments.append(QString::fromUtf8(argv[index]));
        if (arguments.last().toUtf8() != argv[index]) {
            return std::nullopt;
        }
    }
    return arguments;
}

Status Misuse(const QString& text)
{
    Complain(text + "\nTry 'kxregistry --help'.");
    return Misused;
}

void Describe(QCommandLineParser& parser)
{
    parser.setApplicationDescription("Reads, changes and watches the registry of this terminal.");
    parser.addOptions({{{"h", "help"}, "Show this help."}, {{"v", "version"}, "Show the version."}});
    parser.addPositionalArgument("COMMAND", "One of:\n" + DescribeCommands(), "COMMAND [ARGUMENT...]");
    // After the command everything is key or value, also what starts with a dash.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
}

Status RunCommand(QStringList arguments)
{
    if (arguments.isEmpty()) {
        return Misuse("command missing");
    }
    const QString name = arguments.takeFirst();
    const Command* command = FindCommand(name);
    if (command == nullptr) {
        return Misuse("unknown command '" + name + "'");
    }
    if (arguments.size() < command->least || arguments.size() > command->most) {
        return Misuse(QStringLiteral("usage: kxregistry %1 %2").arg(command->name, command->arguments));
    }
    // Every command but one takes a key first; watch takes nothing but keys.
    if (arguments.mid(0, 1).contains(QString())) {
        return Misuse("a key must not be empty");
    }
    return command->run(arguments);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("kxregistry");

    const std::optional<QStringList> arguments = Utf8Arguments(argc, argv);
    if (!arguments) {
        return Misuse("arguments must be UTF-8");
    }
    QCommandLineParser parser;
    Describe(parser);
    if (!parser.parse(*arguments)) {
        return Misuse(parser.errorText());
    }
    if (parser.isSet("help")) {
        return PrintLine(parser.helpText().trimmed()) ? Done : Failed;
    }
    if (parser.isSet("version")) {
        return PrintLine("kxregistry " KX_VERSION) ? Done : Failed;
    }
    return RunCommand(parser.positionalArguments());
}
