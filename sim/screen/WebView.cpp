#include "WebView.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QWebEnginePage>
#include <QWebEngineScript>
#include <QWebEngineScriptCollection>
#include <QWebEngineSettings>

#include <utility>

namespace {

constexpr auto kScriptName = "kx";
// What the screen's script says to the screen itself.
constexpr auto kPainted = "kx-painted";
constexpr auto kApplications = "kx-applications";

QString Resource(const char* path)
{
    QFile file(QString::fromLatin1(path));
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}

QString PageScript(const QJsonObject& registry)
{
    const QString values = QString::fromUtf8(QJsonDocument(registry).toJson(QJsonDocument::Compact));
    return Resource(":/qtwebchannel/qwebchannel.js") +
           Resource(":/screen/page.js").replace("/*REGISTRY*/{}", values);
}

} // namespace

WebView::WebView(QWidget* parent) : QWebEngineView(parent)
{
    m_channel.registerObject("bridge", &m_bridge);
    page()->setWebChannel(&m_channel);
    connect(&m_bridge, &Bridge::Told, this, &WebView::OnTold);
    connect(this, &QWebEngineView::loadStarted, this, [this] { m_loading = true; });
    connect(this, &QWebEngineView::loadFinished, this, [this] { m_loading = false; });
    // A page that was left does not answer any more; the next one is asked.
    connect(this, &QWebEngineView::loadFinished, this, &WebView::AskWhetherPainted);
    settings()->setAttribute(QWebEngineSettings::ShowScrollBars, false);
    settings()->setAttribute(QWebEngineSettings::PlaybackRequiresUserGesture, false);
    settings()->setAttribute(QWebEngineSettings::ErrorPageEnabled, true);
    setContextMenuPolicy(Qt::NoContextMenu);
    SetRegistry({});
}

void WebView::SetRegistry(const QJsonObject& values)
{
    QWebEngineScriptCollection& scripts = page()->scripts();
    scripts.remove(scripts.findScript(kScriptName));
    QWebEngineScript script;
    script.setName(kScriptName);
    script.setInjectionPoint(QWebEngineScript::DocumentCreation);
    script.setWorldId(QWebEngineScript::MainWorld);
    script.setSourceCode(PageScript(values));
    scripts.insert(script);
}

void WebView::Call(const QString& function, const QString& arguments, const std::function<void(bool)>& done)
{
    const QString call = QStringLiteral("window.kxScreen !== undefined && document.body !== null && "
                                        "kxScreen.%1(%2)");
    page()->runJavaScript(call.arg(function, arguments),
                          [done](const QVariant& outcome) { done(outcome.toBool()); });
}

void WebView::Grab(const std::function<void(const QPixmap&)>& done)
{
    m_grabs.append(done);
    AskWhetherPainted();
}

void WebView::WhenSettled(const std::function<void()>& done)
{
    Grab([this, done](const QPixmap&) {
        if (!m_loading) {
            done();
            return;
        }
        auto* waiting = new QObject(this);
        connect(this, &QWebEngineView::loadFinished, waiting, [waiting, done] {
            waiting->deleteLater();
            done();
        });
    });
}

void WebView::AskWhetherPainted()
{
    if (m_grabs.isEmpty()) {
        return;
    }
    const QString ask = "window.kxScreen !== undefined && (kxScreen.painted(), true)";
    page()->runJavaScript(ask, [this](const QVariant& asked) {
        if (!asked.toBool()) {
            FinishGrabs(QPixmap());
        }
    });
}

QWebEngineView* WebView::createWindow(QWebEnginePage::WebWindowType)
{
    return this;
}

void WebView::OnTold(const QString& name, const QVariantMap& eventData)
{
    if (name == kPainted) {
        FinishGrabs(grab());
    } else if (name == kApplications) {
        TellApplications();
    } else {
        emit PageEvent(name, eventData);
    }
}

void WebView::TellApplications()
{
    m_applications.Fetch([this](const QVariantList& applications) {
        const QJsonDocument list(QJsonArray::fromVariantList(applications));
        Call("applications", QString::fromUtf8(list.toJson(QJsonDocument::Compact)), [](bool) {});
    });
}

void WebView::FinishGrabs(const QPixmap& picture)
{
    for (const auto& done : std::exchange(m_grabs, {})) {
        done(picture);
    }
}
