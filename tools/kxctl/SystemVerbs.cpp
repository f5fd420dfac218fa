#include "Output.h"
#include "SystemCall.h"
#include "Verbs.h"

namespace kxctl {
namespace {

/// Performs a call whose answer says no more than that it worked.
ExitStatus Perform(const Request& request, SystemCallId id, const QVariantMap& arguments = {})
{
    PerformSystemCall(request, id, arguments);
    return Success;
}

/// \return the value of an option, which must be one of \a words; empty when it is not given
QString WordOption(const Request& request, const char* verb, const char* option, const QStringList& words)
{
    QString value = request.options.value(option);
    if (request.options.isSet(option) && !words.contains(value)) {
        throw Misused(verb,
                      QStringLiteral("--%1 is one of %2, not '%3'").arg(option, words.join(", "), value));
    }
    return value;
}

ExitStatus Reboot(const Request& request)
{
    return Perform(request, RebootCall);
}

ExitStatus PowerOff(const Request& request)
{
    return Perform(request, PowerOffCall);
}

ExitStatus HardwareTest(const Request& request)
{
    QVariantMap arguments;
    if (request.options.isSet("url")) {
        arguments.insert("url", request.options.value("url"));
    }
    return Perform(request, HardwareTestCall, arguments);
}

ExitStatus Console(const Request& request)
{
    const QString command = request.arguments.first();
    if (command != "enable" && command != "disable") {
        throw Misused("system console", QStringLiteral("'%1' is neither enable nor disable").arg(command));
    }
    return Perform(request, ConsoleCall, {{"command", command}});
}

ExitStatus LogText(const Request& request)
{
    return Perform(request, LogCall, {{"text", request.arguments.first()}});
}

ExitStatus Web(const Request& request)
{
    struct Setting {
        const char* option;
        const char* key;
        QStringList words;
    };
    const std::vector<Setting> settings{
        {"protocol", "newconf", {"HTTP", "HTTPS"}},
        {"caching", "caching", {"on", "off"}},
        {"buffering", "buffer-resp", {"on", "off"}},
    };
    QVariantMap arguments;
    for (const Setting& setting : settings) {
        const QString value = WordOption(request, "system web", setting.option, setting.words);
        if (request.options.isSet(setting.option)) {
            arguments.insert(setting.key, value);
        }
    }
    return Perform(request, WebServerCall, arguments);
}

ExitStatus Usb(const Request& request)
{
    const QString mode = WordOption(request, "system usb", "mode", {"ethernet", "serial"});
    if (mode.isEmpty()) {
        throw Misused("system usb", "needs --mode");
    }
    QVariantMap arguments{
        {"mode", mode},
        {"usbForceFullspeed", request.options.isSet("full-speed")},
        {"dflt", request.options.isSet("default-ids")},
        {"usbuid", request.options.isSet("unit-serial")},
        {"lteConnected", request.options.isSet("lte-connected")},
    };
    if (request.options.isSet("hub-id")) {
        arguments.insert("hubid", request.options.value("hub-id"));
    }
    return Perform(request, UsbCall, arguments);
}

ExitStatus Kernel(const Request& request)
{
    const QVariantMap answer = PerformSystemCall(request, GetKernelCall, {});
    const int version = answer.value("return").toInt();
    if (!request.isJson) {
        Print(version == 0 ? "none runs" : QString::number(version));
    }
    return Success;
}

ExitStatus SetKernel(const Request& request)
{
    const QString number = request.arguments.first();
    if (number != "1" && number != "2" && number != "3") {
        throw Misused("system kernel set", QStringLiteral("'%1' is none of 1, 2 and 3").arg(number));
    }
    return Perform(request, SetKernelCall, {{"number", number}});
}

ExitStatus Battery(const Request& request)
{
    const QVariantMap answer = PerformSystemCall(request, BatteryCall, {});
    if (!request.isJson) {
        Print(QStringLiteral("%1 V").arg(answer.value("voltage").toDouble(), 0, 'f', 3));
    }
    return Success;
}

ExitStatus Keypad(const Request& request)
{
    return Perform(request, KeypadCall);
}

ExitStatus AnyCall(const Request& request)
{
    bool isNumber = false;
    const int id = request.arguments.first().toInt(&isNumber);
    if (!isNumber) {
        throw Misused("system call", QStringLiteral("'%1' is no number").arg(request.arguments.first()));
    }
    const QVariantMap answer = PerformSystemCall(request, id, ParseCallArguments(request.arguments.mid(1)));
    if (!request.isJson) {
        Table table;
        for (auto entry = answer.begin(); entry != answer.end(); ++entry) {
            table.Add({entry.key(), ToText(entry.value())});
        }
        table.Print();
    }
    return Success;
}

std::vector<Verb> PowerVerbs()
{
    return {
        {"system reboot",
         "",
         0,
         0,
         "restart the operating system at once",
         "Does not ask, and does not have the applications stop first; 'kxctl restart' does.",
         {},
         Reboot},
        {"system poweroff", "", 0, 0, "switch the terminal off at once", "Does not ask.", {}, PowerOff},
        {"system hwtest",
         "",
         0,
         0,
         "run the hardware test",
         "It runs in the background.",
         {{"url", "URL", "page to open when the test ends"}},
         HardwareTest},
        {"system console",
         "{enable|disable}",
         1,
         1,
         "switch the console",
         "All applications are stopped, and started again afterwards.",
         {},
         Console},
        {"system log", "TEXT", 1, 1, "write a text to the daemon's log", "", {}, LogText},
        {"system kernel", "", 0, 0, "show which secure kernels run: 1, 2 or 3", "", {}, Kernel},
        {"system kernel set",
         "N",
         1,
         1,
         "choose the secure kernels: 1, 2 or 3",
         "The secure daemon is restarted if another one runs.",
         {},
         SetKernel},
        {"system battery", "", 0, 0, "measure the coin cell", "", {}, Battery},
        {"system keypad", "", 0, 0, "reset the keypad", "", {}, Keypad},
    };
}

std::vector<Verb> ConfigurationVerbs()
{
    return {
        {"system web",
         "",
         0,
         0,
         "configure and restart the web server",
         "What is not given stays as it is. The restart follows half a second later; after --caching off "
         "the\n"
         "browser is restarted too.",
         {{"protocol", "PROTOCOL", "HTTP or HTTPS"},
          {"caching", "STATE", "on or off"},
          {"buffering", "STATE", "of responses: on or off"}},
         Web},
        {"system usb",
         "",
         0,
         0,
         "configure the USB device port",
         "Sets the whole configuration, so a switch that is not given is off; only the hub identifier then "
         "stays\n"
         "as it is. Applications are stopped while the drivers are loaded anew, unless --lte-connected or\n"
         "--hub-id is given. May take minutes.",
         {{"mode", "MODE", "ethernet or serial; required"},
          {"full-speed", nullptr, "allow no more than 12 Mbit/s"},
          {"default-ids", nullptr, "use the platform's vendor and product ids, not the legacy ones"},
          {"unit-serial", nullptr, "use the unit's own serial number, not the legacy one"},
          {"hub-id", "TEXT", "new hub identifier; empty deletes it"},
          {"lte-connected", nullptr, "leave the applications running"}},
         Usb},
        {"system call",
         "ID [KEY=TEXT|KEY:=JSON]...",
         1,
         kAnyNumber,
         "perform any system call by its number",
         "KEY=TEXT sends a text. KEY:=JSON sends another value: true and false, whole numbers, other "
         "numbers,\n"
         "lists and maps. Succeeds when \"return\" is 0, for call 103 when it is not negative.",
         {},
         AnyCall},
    };
}

} // namespace

const std::vector<Verb>& SystemVerbs()
{
    static const std::vector<Verb> verbs = Joined(PowerVerbs(), ConfigurationVerbs());
    return verbs;
}

} // namespace kxctl
