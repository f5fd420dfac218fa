#include "misc/Utils.h"
#include "server/system/Report.h"
#include "server/system/Server.h"

#include <QByteArray>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>

namespace core::system {
namespace {

/// One for each generation of the secure daemon, from 1 on.
constexpr std::array<const char*, 3> kQueries{"pidof sredd", "pidof sredd2", "pidof sredd3"};

/// The text goes into a shell line, so nothing but digits may pass.
bool IsAllDigits(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar character) {
        return character >= QLatin1Char('0') && character <= QLatin1Char('9');
    });
}

int RunningGeneration()
{
    const auto* const running = std::find_if(kQueries.begin(), kQueries.end(),
                                             [](const char* query) { return Misc::ExecShell(query) == 0; });
    return running == kQueries.end() ? 0 : static_cast<int>(running - kQueries.begin()) + 1;
}

int ParseVersion(const QString& text)
{
    bool valid = false;
    const int version = text.toInt(&valid);
    if (!valid || !IsAllDigits(text) || version <= 0 || version > static_cast<int>(kQueries.size())) {
        throw std::runtime_error("Invalid L2KernelsVersion: " + ExcerptOf(text));
    }
    return version;
}

void StoreVersion(const QString& text)
{
    const QByteArray line = "echo " + text.toLatin1() + " > /etc/platform/settings/L2KernelsVersion";
    if (Misc::ExecShell(line.constData()) != 0) {
        throw std::runtime_error("Write to /etc/platform/settings/L2KernelsVersion error: " +
                                 std::to_string(errno));
    }
}

} // namespace

int Server::DoGetL2KernelsVersion()
{
    int version = -1;
    Attempt(__func__, [&] { version = RunningGeneration(); });
    return version;
}

int Server::DoSetL2KernelsVersion(const QVariantMap& args)
{
    const bool done = Attempt(__func__, [&] {
        const QString text = args.value(QStringLiteral("number")).toString();
        const int version = ParseVersion(text);
        StoreVersion(text);
        if (DoGetL2KernelsVersion() != version && Misc::ExecShell("/etc/platform/34-sredd restart") != 0) {
            throw std::runtime_error("sredd restarting returns error: " + std::to_string(errno));
        }
    });
    return done ? 0 : -1;
}

} // namespace core::system
