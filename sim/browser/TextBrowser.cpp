#include "TextBrowser.h"

#include <QNetworkReply>
#include <QRegularExpression>
#include <QTextStream>

namespace {

constexpr int kUnsupported = -1;
constexpr int kLoadLimitMs = 10000;

QString TitleOf(const QString& source)
{
    static const QRegularExpression title(QStringLiteral("<title[^>]*>([^<]*)</title>"),
                                          QRegularExpression::CaseInsensitiveOption);
    return title.match(source).captured(1).simplified();
}

// The application that a page belongs to, by the three ways in which pages are addressed.
QString ApplicationOf(const QUrl& url)
{
    static const QRegularExpression owner(
        QStringLiteral("^/cgi-bin/page/show\\?path=([^/]+)/|^/(?:cgi-bin|html|files)/([^/]+)/"));
    const auto match = owner.match(url.toString(QUrl::RemoveScheme | QUrl::RemoveAuthority));
    return match.captured(1) + match.captured(2);
}

void Print(const QString& outcome, const QString& title, const QUrl& url)
{
    QTextStream(stdout) << outcome.leftJustified(6) << ' ' << title.leftJustified(24) << ' ' << url.toString()
                        << Qt::endl;
}

} // namespace

TextBrowser::TextBrowser(QObject* parent) : QObject(parent)
{
    m_network.setTransferTimeout(kLoadLimitMs);
    m_network.setRedirectPolicy(QNetworkRequest::SameOriginRedirectPolicy);
}

QVariantMap TextBrowser::GetUrl() const
{
    return {{QStringLiteral("url"), m_url.toString(QUrl::FullyEncoded)},
            {QStringLiteral("application"), m_application},
            {QStringLiteral("title"), m_title}};
}

int TextBrowser::ShowPage(const QString& path)
{
    if (m_loading) {
        // The newest request wins; the one that is given up reports nothing more.
        m_loading->disconnect(this);
        m_loading->abort();
        m_loading->deleteLater();
    }
    const QUrl url(path, QUrl::StrictMode);
    emit loadStarted();
    if (!url.isValid() || url.scheme() != QLatin1String("http")) {
        Print(QStringLiteral("failed"), QStringLiteral("(not an address)"), url);
        emit loadCompleted(false);
        return kUnsupported;
    }
    m_loading = m_network.get(QNetworkRequest(url));
    connect(m_loading, &QNetworkReply::finished, this, [this, reply = m_loading.data()] { Finish(reply); });
    return 0;
}

int TextBrowser::ShowPage(const QString& path, const QVectorOfPairSS& registryValues)
{
    Q_UNUSED(registryValues)
    return ShowPage(path);
}

void TextBrowser::Finish(QNetworkReply* reply)
{
    const bool success = reply->error() == QNetworkReply::NoError;
    if (success) {
        Remember(reply->url(), QString::fromUtf8(reply->readAll()));
        Print(QStringLiteral("shown"), m_title, m_url);
    } else {
        Print(QStringLiteral("failed"), reply->errorString(), reply->url());
    }
    m_loading.clear();
    reply->deleteLater();
    emit loadCompleted(success);
}

void TextBrowser::Remember(const QUrl& url, const QString& source)
{
    const QString application = ApplicationOf(url);
    const bool changesApplication = application != m_application;
    m_url = url;
    m_source = source;
    m_title = TitleOf(source);
    m_application = application;
    emit OnUrlChange(GetUrl());
    if (changesApplication) {
        emit OnApplicationChange(GetUrl());
    }
}

int TextBrowser::PlayVideo(const QString& url)
{
    Q_UNUSED(url)
    return kUnsupported;
}

int TextBrowser::StopVideo()
{
    return kUnsupported;
}

int TextBrowser::PromptLabelButton(const QString& xml)
{
    Q_UNUSED(xml)
    return kUnsupported;
}

int TextBrowser::ReloadPrompts()
{
    return kUnsupported;
}

int TextBrowser::UpdatePage(const QString& xml, bool wait)
{
    Q_UNUSED(xml)
    Q_UNUSED(wait)
    return kUnsupported;
}
