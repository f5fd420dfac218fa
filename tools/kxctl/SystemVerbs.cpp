#include "Daemon.h"
#include "Json.h"
#include "Verbs.h"
#include "common/Output.h"
#include "server/system/SystemCallId.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace kxctl {
namespace {

using namespace core::system;

/// An answer holds a number, 0 for success; the query of the kernels has the version there, or a negative
/// number. No number at all: the operation failed on the way.
bool IsFailure(int id, const QVariantMap& answer)
{
    bool isNumber = false;
    const int result = answer.value("return").toInt(&isNumber);
    return !isNumber || (id == GetKernelVersionCall ? result < 0 : result != 0);
}

QString FailureText(const QVariantMap& answer)
{
    const QString response = answer.value("response").toString();
    QString text = response.isEmpty() ? "the operation failed; the daemon's log tells why" : response;
    if (answer.contains("return")) {
        text += QStringLiteral(" (the daemon answered %1)").arg(answer.value("return").toString());
    }
    return text;
}

/// Performs a system call and shows the answer as JSON if that is wanted.
/// \return the answer; throws Failure with Refused when it tells of a failure
QVariantMap Call(const Request& request, int id, const QVariantMap& arguments = {})
{
    const QVariantMap answer = Wait(Daemon(request).system.SystemCall(id, arguments)).value();
    if (request.IsSet("json")) {
        PrintJson(answer);
    }
    if (IsFailure(id, answer)) {
        throw Failure(cli::Refused, FailureText(answer));
    }
    return answer;
}

ExitStatus Perform(const Request& request, SystemCallId id, const QVariantMap& arguments = {})
{
    Call(request, id, arguments);
    return cli::Success;
}

ExitStatus Reboot(const Request& request)
{
    Confirm(request, "Restart the operating system at once?");
    return Perform(request, RebootCall);
}

ExitStatus PowerOff(const Request& request)
{
    Confirm(request, "Switch the terminal off at once?");
    return Perform(request, PowerOffCall);
}

ExitStatus HardwareTest(const Request& request)
{
    QVariantMap arguments;
    if (request.IsSet("url")) {
        arguments.insert("url", request.Value("url"));
    }
    return Perform(request, HardwareTestCall, arguments);
}

ExitStatus Web(const Request& request)
{
    QVariantMap arguments;
    const auto add = [&](const char* option, const char* key) {
        if (request.IsSet(option)) {
            arguments.insert(key, request.Value(option));
        }
    };
    add("protocol", "newconf");
    add("caching", "caching");
    add("buffering", "buffer-resp");
    return Perform(request, WebServerCall, arguments);
}

ExitStatus Usb(const Request& request)
{
    if (!request.IsSet("mode")) {
        throw request.Misused("needs --mode");
    }
    QVariantMap arguments{
        {"mode", request.Value("mode")},
        {"usbForceFullspeed", request.IsSet("full-speed")},
        {"dflt", request.IsSet("default-ids")},
        {"usbuid", request.IsSet("unit-serial")},
        {"lteConnected", request.IsSet("lte-connected")},
    };
    if (request.IsSet("hub-id")) {
        arguments.insert("hubid", request.Value("hub-id"));
    }
    return Perform(request, UsbGadgetCall, arguments);
}

ExitStatus Kernel(const Request& request)
{
    const int version = Call(request, GetKernelVersionCall).value("return").toInt();
    if (!request.IsSet("json")) {
        cli::Print(version == 0 ? "none runs" : QString::number(version));
    }
    return cli::Success;
}

ExitStatus Battery(const Request& request)
{
    const double voltage = Call(request, CoinBatteryCall).value("voltage").toDouble();
    if (!request.IsSet("json")) {
        cli::Print(QStringLiteral("%1 V").arg(voltage, 0, 'f', 3));
    }
    return cli::Success;
}

/// \return the value that JSON text holds; whole numbers as integers, which is what the daemon knows
QVariant ParseJson(const Request& request, const QString& word, const QString& text)
{
    // The reader takes documents only, which are lists or maps.
    const QJsonArray list = QJsonDocument::fromJson(('[' + text + ']').toUtf8()).array();
    if (list.size() != 1 || list.first().isNull()) {
        throw request.Misused(QStringLiteral("'%1' holds no JSON value that can be sent").arg(word));
    }
    const double number = list.first().toDouble(std::nan(""));
    const bool isInt = std::trunc(number) == number && std::abs(number) <= std::numeric_limits<int>::max();
    return isInt ? QVariant(static_cast<int>(number)) : list.first().toVariant();
}

QVariantMap ParseCallArguments(const Request& request)
{
    QVariantMap arguments;
    for (const QString& word : request.arguments.mid(1)) {
        const int equals = word.indexOf('=');
        const bool isJson = equals > 0 && word.at(equals - 1) == ':';
        const int length = isJson ? equals - 1 : equals;
        if (length < 1) {
            throw request.Misused(QStringLiteral("'%1' is neither KEY=TEXT nor KEY:=JSON").arg(word));
        }
        const QString value = word.mid(equals + 1);
        arguments.insert(word.left(length), isJson ? ParseJson(request, word, value) : QVariant(value));
    }
    return arguments;
}

ExitStatus AnyCall(const Request& request)
{
    const int id = request.arguments.first().toInt();
    if (id != RebootCall && (id < UsbGadgetCall || id > KeypadResetCall)) {
        throw request.Misused(QStringLiteral("there is no call '%1', only %2 and %3 to %4")
                                  .arg(request.arguments.first(), QString::number(RebootCall),
                                       QString::number(UsbGadgetCall), QString::number(KeypadResetCall)));
    }
    const QVariantMap answer = Call(request, id, ParseCallArguments(request));
    if (!request.IsSet("json")) {
        cli::Table table;
        for (auto entry = answer.begin(); entry != answer.end(); ++entry) {
            table.Add({entry.key(), ToText(entry.value())});
        }
        table.Print();
    }
    return cli::Success;
}

} // namespace

std::vector<Verb> SystemVerbs()
{
    const cli::Option yes{"yes", nullptr, "do not ask; needed where there is no terminal"};
    return {
        {"system reboot",
         "restart the operating system at once",
         Reboot,
         "Does not have the applications stop first; 'kxctl restart' does.",
         {yes}},
        {"system poweroff", "switch the terminal off at once", PowerOff, "", {yes}},
        {"system hwtest",
         "run the hardware test",
         HardwareTest,
         "It runs in the background.",
         {{"url", "URL", "page to open when the test ends"}}},
        {"system console {enable|disable}", "switch the console",
         [](const Request& r) {
             return Perform(r, ConsoleCall, {{"command", r.arguments.first()}});
         },
         "All applications are stopped, and started again afterwards."},
        {"system log TEXT", "write a text to the daemon's log",
         [](const Request& r) {
             return Perform(r, LogCall, {{"text", r.arguments.first()}});
         }},
        {"system kernel", "show which secure kernels run: 1, 2 or 3", Kernel},
        {"system kernel set {1|2|3}", "choose the secure kernels",
         [](const Request& r) {
             return Perform(r, SetKernelVersionCall, {{"number", r.arguments.first()}});
         },
         "The secure daemon is restarted if another one runs."},
        {"system battery", "measure the coin cell", Battery},
        {"system keypad", "reset the keypad", [](const Request& r) { return Perform(r, KeypadResetCall); }},
        {"system web",
         "configure and restart the web server",
         Web,
         "What is not given stays as it is. The restart follows half a second later.",
         {{"protocol", "{HTTP|HTTPS}", "protocol of the pages"},
          {"caching", "{on|off}", "whether the browser may keep pages"},
          {"buffering", "{on|off}", "whether responses are buffered"}}},
        {"system usb",
         "configure the USB device port",
         Usb,
         "A switch that is not given is off, a hub identifier that is not given stays. Applications are "
         "stopped\n"
         "meanwhile but with --lte-connected or --hub-id. May take minutes: --timeout 900 waits.",
         {{"mode", "{ethernet|serial}", "what the port is; required"},
          {"full-speed", nullptr, "allow no more than 12 Mbit/s"},
          {"default-ids", nullptr, "use the platform's vendor and product ids, not the legacy ones"},
          {"unit-serial", nullptr, "use the unit's own serial number, not the legacy one"},
          {"hub-id", "TEXT", "new hub identifier; empty deletes it"},
          {"lte-connected", nullptr, "leave the applications running"}}},
        {"system call ID [KEY=TEXT|KEY:=JSON]...", "perform any system call by its number", AnyCall,
         "KEY=TEXT sends a text, KEY:=JSON a number, true, false, a list or a map."},
    };
}

} // namespace kxctl
