#include "server/tools/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"

#include <QByteArrayList>
#include <QFile>
#include <QRegExp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using com::veltrasys::common::qt::qError;

namespace core::tools {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/tools/Server";
constexpr auto kAudiopayd = "/etc/platform/99-audiopayd";

} // namespace

int Server::SaveVariableValue(const QString& variable_name, const QString& variable_value)
{
    int result = -1;
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        static const QRegExp refused(QString::fromUtf8("[-`~!@#$%^&*()_”+=|:;<>«»,.?/{}'\"\\[\\]\\\\]"));
        if (variable_value.contains(refused)) {
            return;
        }
        const QByteArray line =
            QStringLiteral("export %1=\"%2\"\n").arg(variable_name, variable_value).toLocal8Bit();
        QFile file("/etc/rc.d/rc.platform.conf");
        if (!file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly | QIODevice::Text)) {
            return;
        }
        QByteArrayList lines;
        for (QByteArray old = file.readLine(); !old.isEmpty(); old = file.readLine()) {
            lines.append(old.constData()); // up to a NUL
        }

        const QRegExp pattern(QStringLiteral("*%1*").arg(variable_name), Qt::CaseSensitive,
                              QRegExp::Wildcard);
        const auto found = std::find_if(lines.begin(), lines.end(), [&](const QByteArray& old) {
            return pattern.exactMatch(QString::fromLatin1(old));
        });
        QByteArray text = line;
        if (found != lines.end()) {
            *found = line;
            text = lines.join();
            file.seek(0);
        }
        if (file.write(text) == text.size() && file.flush()) {
            result = 0;
        }
    });
    return result;
}

void Server::EnableAudiopayd(bool enable)
{
    if (chmod(kAudiopayd, enable ? 0755 : 0644) != 0) {
        const char* const reason = std::strerror(errno);
        qError() << KX_PREFIX(kSource) << reason;
    }
}

bool Server::IsAudiopaydEnabled()
{
    return access(kAudiopayd, X_OK) == 0;
}

} // namespace core::tools
