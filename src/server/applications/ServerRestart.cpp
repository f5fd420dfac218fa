#include "misc/Log.h"
#include "misc/Utils.h"
#include "server/applications/Server.h"

#include <QTimer>

#include <curl/curl.h>

#include <chrono>
#include <cstdlib>
#include <memory>

using com::veltrasys::common::qt::qError;
using com::veltrasys::common::qt::qInfo;
using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr long kStopTimeoutSeconds = 5;
constexpr std::chrono::seconds kStopGracePeriod{2};

/// libcurl wants to be set up before any thread is started.
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
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> request(curl_easy_init(), &curl_easy_cleanup);
    if (!request) {
        return;
    }
    curl_easy_setopt(request.get(), CURLOPT_URL, url.toLocal8Bit().constData());
    curl_easy_setopt(request.get(), CURLOPT_TIMEOUT, kStopTimeoutSeconds);
    const CURLcode code = curl_easy_perform(request.get());
    if (code != CURLE_OK) {
        qError() << KX_PREFIX(kSource) << "curl " << url << "returned " << static_cast<int>(code);
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
    Enumerate(); // its answer may lack the largest
    for (const ApplicationConfig& application : m_applications) {
        SendStopToApp(application.m_name);
    }
    Misc::Pause(kStopGracePeriod);
    Terminate();
    [[maybe_unused]] const int status = std::system("reboot");
}

} // namespace core::applications
