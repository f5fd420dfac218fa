#include "BrowserService.h"

#include "Markup.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTextStream>

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = -1;

// The application that a page belongs to, by the three ways in which pages are addressed.
QString ApplicationOf(const QUrl& url)
{
    static const QRegularExpression owner(
        "^/cgi-bin/page/show\\?path=([^/]+)/|^/(?:cgi-bin|html|files)/([^/]+)/");
    const auto match = owner.match(url.toString(QUrl::RemoveScheme | QUrl::RemoveAuthority));
    return match.captured(1) + match.captured(2);
}

bool IsHttp(const QUrl& url)
{
    return url.isValid() && url.scheme() == "http";
}

QString Json(const QJsonArray& array)
{
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

// A text as JavaScript has it.
QString Quoted(const QString& text)
{
    const QString array = Json({text});
    return array.mid(1, array.size() - 2);
}

void Print(bool success, const QString& title, const QUrl& url)
{
    QTextStream(stdout) << (success ? "shown  " : "failed ") << title.leftJustified(24) << ' '
                        << url.toString() << Qt::endl;
}

} // namespace

BrowserService::BrowserService(WebView& view, QObject* parent) : QObject(parent), m_view(view)
{
    connect(&view, &QWebEngineView::loadStarted, this, &BrowserService::loadStarted);
    connect(&view, &QWebEngineView::loadFinished, this, &BrowserService::OnLoadFinished);
    connect(&view, &WebView::PageEvent, this, &BrowserService::OnPageEvent);
}

QVariantMap BrowserService::GetUrl() const
{
    return {{"url", m_hasPage ? m_view.url().toString(QUrl::FullyEncoded) : QString()},
            {"application", m_hasPage ? ApplicationOf(m_view.url()) : QString()},
            {"title", m_hasPage ? m_view.title() : QString()}};
}

QString BrowserService::QueryPage()
{
    if (m_hasPage) {
        setDelayedReply(true);
        m_view.page()->toHtml([connection = connection(), request = message()](const QString& html) {
            connection.send(request.createReply(html));
        });
    }
    return {};
}

int BrowserService::ShowPage(const QString& path)
{
    m_view.SetRegistry({});
    return Load(path);
}

int BrowserService::ShowPage(const QString& path, const QVectorOfPairSS& registryValues)
{
    QJsonObject values;
    for (const auto& value : registryValues) {
        values.insert(value.first, value.second);
    }
    m_view.SetRegistry(values);
    return Load(path);
}

int BrowserService::Load(const QString& path)
{
    const QUrl url(path, QUrl::StrictMode);
    if (!IsHttp(url)) {
        Print(false, "(not an address)", url);
        emit loadStarted();
        emit loadCompleted(false);
        return kFailure;
    }
    m_view.load(url);
    return kSuccess;
}

int BrowserService::UpdatePage(const QString& xml, bool wait)
{
    const auto changes = ParseUpdate(xml);
    if (!changes || !m_hasPage) {
        return kFailure;
    }
    if (!wait) {
        m_view.Call("update", Json(*changes), [](bool) {});
        return kSuccess;
    }
    return CallLater("update", Json(*changes));
}

int BrowserService::PromptLabelButton(const QString& xml)
{
    const auto prompt = ParsePrompt(xml);
    if (!prompt) {
        return kFailure;
    }
    m_promptArguments = Quoted(prompt->label) + ',' + Json(QJsonArray::fromStringList(prompt->buttons));
    return ReloadPrompts();
}

int BrowserService::ReloadPrompts()
{
    return m_promptArguments.isEmpty() ? kFailure : CallLater("prompt", m_promptArguments);
}

int BrowserService::PlayVideo(const QString& url)
{
    return IsHttp(QUrl(url, QUrl::StrictMode)) ? CallLater("playVideo", Quoted(url)) : kFailure;
}

int BrowserService::StopVideo()
{
    return CallLater("stopVideo", QString());
}

// Answers the caller once the page's script has; the result itself is not looked at then.
int BrowserService::CallLater(const QString& function, const QString& arguments)
{
    if (!m_hasPage) {
        return kFailure;
    }
    setDelayedReply(true);
    m_view.Call(function, arguments, [connection = connection(), request = message()](bool success) {
        connection.send(request.createReply(success ? kSuccess : kFailure));
    });
    return kSuccess;
}

void BrowserService::OnLoadFinished(bool success)
{
    Print(success, m_view.title(), m_view.url());
    if (success) {
        const QString application = ApplicationOf(m_view.url());
        const bool changesApplication = application != m_application;
        m_hasPage = true;
        m_application = application;
        emit OnUrlChange(GetUrl());
        if (changesApplication) {
            emit OnApplicationChange(GetUrl());
        }
    }
    emit loadCompleted(success);
}

void BrowserService::OnPageEvent(const QString& name, const QVariantMap& data)
{
    QVariantMap event = data;
    event.insert("name", name);
    emit PageEvent(event);
}
