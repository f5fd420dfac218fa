// Page names on their way to the browser: a line with the application, a line with the page.

#include "Fuzz.h"

#include "server/applications/Server.h"

#include <algorithm>

namespace {

core::applications::Server& TheServer()
{
    static core::applications::Server server;
    return server;
}

bool IsEncoded(const QString& address)
{
    return std::all_of(address.begin(), address.end(),
                       [](QChar c) { return c > QLatin1Char(' ') && c < QChar(0x7F); });
}

} // namespace

void TryInput(const QByteArray& input)
{
    PutFile("/home/pay/html/index.html", QByteArray());
    QByteArray rest = input;
    QString name = TextOf(TakeLine(rest));
    const QString page = TextOf(TakeLine(rest));

    const QString address = TheServer().PathToURI(page, name);
    constexpr int kLongestName = 40;
    Require(address.isEmpty() || address.startsWith("http://localhost"), "pages are this terminal's");
    Require(IsEncoded(address), "an address is percent-encoded");
    Require(name.size() <= kLongestName, "a name has its limit");
}
