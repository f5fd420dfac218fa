#include "server/applications/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"
#include "misc/Utils.h"

#include <QTimer>

#include <curl/curl.h>

#include <chrono>
#include <cstdlib>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr long kStopTimeout = 5; ///< in seconds
constexpr std::chrono::seconds kStopGracePeriod{2};

/// Sets libcurl up before main and takes it down at exit.
class CurlInitializer {
public:
    CurlInitializer() { curl_global_init(CURL_GLOBAL_ALL); }
    ~CurlInitializer() { curl_global_cleanup(); }
    CurlInitializer(const CurlInitializer&) = delete;
    CurlInitializer& operator=(const CurlInitializer&) = delete;
};

const CurlInitializer g_curlInitializer;

void SendStopToApp(const QString& name)
{
    const QString url = QStringLiteral("http://localhost/cgi-bin/%1/stop").arg(name);
    CURL* const request = curl_easy_init();
    if (request == nullptr) {
        return;
    }
    curl_easy_setopt(request, CURLOPT_URL, url.toLocal8Bit().constData());
    curl_easy_setopt(request, CURLOPT_TIMEOUT, kStopTimeout);
    const CURLcode code = curl_easy_perform(request);
    if (code != CURLE_OK) {
        qError() << KX_PREFIX(kSource) << "curl " << url << "returned " << code;
    }
    curl_easy_cleanup(request);
}

} // namespace

void Server::Terminate()
{
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        m_processManager.TerminateApps();
        emit OnTerminate(QVariantMap());
    });
}

void Server::Restart(const QString& /*when*/)
{
    qInfo() << KX_PREFIX(kSource) << "Terminal restart is scheduled";
    m_restartTimer->setInterval(0);
    m_restartTimer->start();
}

void Server::OnRestartTimer()
{
    const QList<QVariantMap> list = Enumerate();
    for (const QVariantMap& application : list) {
        SendStopToApp(application.value("name").toString());
    }
    Misc::Pause(kStopGracePeriod);
    Terminate();
    [[maybe_unused]] const int status = std::system("reboot");
}

} // namespace core::applications
