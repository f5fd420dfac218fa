#include "server/applications/Server.h"

#include "misc/Guard.h"
#include "misc/Log.h"
#include "misc/Utils.h"

#include <QMetaObject>

using com::veltrasys::common::qt::qError;
using core::configuration::ApplicationConfig;

namespace core::applications {
namespace {

constexpr auto kSource = "/pkgs/kx-core/src/server/applications/Server";
constexpr auto kIndexPage = "html/index.html";
constexpr auto kDefaultCgiLink = "/var/run/www/cgi-bin-default";

} // namespace

QVariantMap Server::Start(const QVariantMap& request)
{
    QVariantMap result;
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        if (request.isEmpty()) {
            FileSystem::RemoveFile("/var/run/sockets");
            Enumerate();
            result.insert("return", true);
            QMetaObject::invokeMethod(this, "StartApplication", Qt::QueuedConnection);
            return;
        }
        const QString application = request.value("application").toString();
        const bool isDefault = request.value("default").toBool();
        if (isDefault) {
            ShowFormOf(GetNameOfInstalledDefaultApp(), kIndexPage);
        }
        if (isDefault && application.isEmpty()) {
            return;
        }
        const QString binary = request.value("binary").toString();
        const QString params = request.value("params").toString();
        result = StartApplicationBinary(application, binary, params);
    });
    return result;
}

void Server::StartApplication()
{
    const char* const function = __func__;
    Misc::Guarded(KX_PREFIX(kSource), [&] {
        FileSystem::RemoveFile(kDefaultCgiLink);
        if (HasShowOnceForm()) {
            m_browser.ShowPage("http://localhost/cgi-bin/page/show?path=platform/show_once.html",
                               kShowOnceForm);
            return;
        }
        Terminate();

        QString page;
        QString pageApp;
        bool manyShowOnBoot = false;
        QString cgiDefaultApp;
        int cgiDefaults = 0;
        for (const ApplicationConfig& config : m_applications) {
            if (config.m_cgiBinDefault) {
                ++cgiDefaults;
                cgiDefaultApp = config.m_name;
            }
            if (!config.m_runOnBoot.isEmpty() && !m_processManager.StartProcess(config.m_runOnBoot, config)) {
                qError() << KX_PREFIX_AS(kSource, function) << "Failed to start application "
                         << config.m_name;
                continue;
            }
            if (!config.m_showOnBoot.isEmpty() && page.isEmpty()) {
                page = config.m_showOnBoot;
                pageApp = config.m_name;
            } else if (!config.m_showOnBoot.isEmpty()) {
                manyShowOnBoot = true;
            }
        }
        if (cgiDefaults == 1) {
            FileSystem::CreateSymlink("/home/" + cgiDefaultApp + "/cgi-bin", kDefaultCgiLink);
        } else if (cgiDefaults > 1) {
            qError() << KX_PREFIX_AS(kSource, function)
                     << "Multiple applications have <cgi_bin_default>true</cgi_bin_default> configured. "
                        "Only one is allowed.";
        }
        // Two applications that both want the screen at boot cancel each other.
        if (page.isEmpty() || manyShowOnBoot) {
            page = kIndexPage;
            pageApp = GetNameOfInstalledDefaultApp();
        }
        ShowFormOf(pageApp, page);
        emit OnStarted(QVariantMap());
    });
}

void Server::ShowFormOf(QString application, const QString& page)
{
    if (application.isEmpty()) {
        m_browser.ShowPage("http://localhost/cgi-bin/page/show?path=platform/misc/noapps.html", "");
    } else {
        m_browser.ShowPage(PathToURI(page, application), "");
    }
}

} // namespace core::applications
