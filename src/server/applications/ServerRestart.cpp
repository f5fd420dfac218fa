#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"
#include "server/applications/stoprequest/StopRequest.h"

#include <QTimer>

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr long kStopTimeoutSeconds = 5;
constexpr std::chrono::seconds kStopGracePeriod{2};

/// \return the module's function, loaded by the first call and kept; null when that failed, which is logged
SendStopRequest LoadStopRequest()
{
    void* module = dlopen(KX_STOP_REQUEST_MODULE, RTLD_NOW | RTLD_LOCAL);
    void* function = module == nullptr ? nullptr : dlsym(module, kSendStopRequestName);
    if (function == nullptr) {
        qError() << KX_PREFIX(kSource) << dlerror();
    }
    return reinterpret_cast<SendStopRequest>(function);
}

void SendStopToApp(const QString& name)
{
    static const SendStopRequest send = LoadStopRequest();
    const QString url = QStringLiteral("http://localhost/cgi-bin/%1/stop").arg(name);
    const int code = send == nullptr ? -1 : send(url.toLocal8Bit().constData(), kStopTimeoutSeconds);
    if (code > 0) {
        qError() << KX_PREFIX(kSource) << "curl " << url << "returned " << code;
    }
}

} // namespace

void Server::Terminate()
{
    try {
        m_processManager.TerminateApps();
        emit OnTerminate(QVariantMap());
    } catch (...) {
        qError() << KX_PREFIX(kSource) << "Unexpected exception";
    }
}

void Server::Restart(const QString& /*when*/)
{
    qInfo() << KX_PREFIX(kSource) << "Terminal restart is scheduled";
    m_restartTimer->setInterval(0);
    m_restartTimer->start();
}

void Server::OnRestartTimer()
{
    const QList<QVariantMap> applications = Enumerate();
    for (const QVariantMap& application : applications) {
        SendStopToApp(application.value(QStringLiteral("name")).toString());
    }
    Misc::Pause(kStopGracePeriod);
    Terminate();
    [[maybe_unused]] const int status = std::system("reboot");
}

} // namespace core::applications
