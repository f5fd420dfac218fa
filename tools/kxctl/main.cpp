#include "CommandLine.h"
#include "Output.h"

#include <QCoreApplication>

#include <cstdio>

namespace {

/// What the libraries have to say is for the person in front of the terminal, not for the system's log.
void ShowMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
{
    if (type != QtDebugMsg && type != QtInfoMsg) {
        kxctl::Complain(text);
    }
}

/// Arguments are UTF-8 whatever the locale, as is the output.
QStringList Arguments(int argc, char** argv)
{
    QStringList arguments;
    for (int index = 0; index < argc; ++index) {
        arguments.append(QString::fromUtf8(argv[index]));
    }
    return arguments;
}

kxctl::ExitStatus Run(const QStringList& arguments)
{
    try {
        return kxctl::RunCommandLine(arguments);
    } catch (const kxctl::Failure& failure) {
        kxctl::Flush();
        kxctl::Complain(QString::fromUtf8(failure.what()));
        return failure.Status();
    }
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    qInstallMessageHandler(ShowMessage);
    const kxctl::ExitStatus status = Run(Arguments(argc, argv));
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        kxctl::Complain("cannot write to standard output");
        return status == kxctl::Success ? kxctl::Refused : status;
    }
    return status;
}
