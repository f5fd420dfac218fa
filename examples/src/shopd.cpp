// FastCGI service of the application "shop", started at boot: catalogue and basket below /cgi-bin/shop/.
#include "Web.h"

#include <array>
#include <cstdlib>
#include <fcgiapp.h>
#include <fstream>
#include <iostream>
#include <sys/stat.h>

namespace {

struct Item {
    const char* key;
    const char* name;
    int cents;
};

constexpr std::array<Item, 5> kItems = {{{"coffee", "Coffee", 260},
                                         {"tea", "Tea", 220},
                                         {"juice", "Orange juice", 340},
                                         {"cake", "Apple cake", 390},
                                         {"bun", "Cinnamon bun", 280}}};

constexpr auto kShop = "/cgi-bin/page/show?path=shop/index.html";
constexpr auto kCatalogue = "/cgi-bin/shop/catalogue";

using Basket = std::map<std::string, int>;

std::string Row(std::string_view left, std::string_view right)
{
    std::string row = "<tr><td>";
    return row.append(left).append("</td><td>").append(right).append("</td></tr>\n");
}

std::string Table(const std::string& rows)
{
    return samples::Card(R"(<table class="rows">)" + rows + "</table>");
}

std::string CountText(const Basket& basket)
{
    int count = 0;
    int total = 0;
    for (const Item& item : kItems) {
        const auto found = basket.find(item.key);
        const int wanted = found == basket.end() ? 0 : found->second;
        count += wanted;
        total += wanted * item.cents;
    }
    return std::to_string(count) + (count == 1 ? " item, " : " items, ") + samples::FormatCents(total);
}

// What the catalogue's script puts into its page.
std::string Summary(const samples::Form&, Basket& basket)
{
    return "Content-Type: text/plain\r\nCache-Control: no-store\r\n\r\n" + CountText(basket);
}

std::string Catalogue(const samples::Form&, Basket& basket)
{
    std::string rows;
    for (const Item& item : kItems) {
        const std::string link =
            std::string(R"( <a href="/cgi-bin/shop/add?item=)") + item.key + R"(">&nbsp;+&nbsp;</a>)";
        rows += Row(item.name, samples::FormatCents(item.cents) + link);
    }
    const std::string summary = R"(<p class="quiet" id="summary">)" + CountText(basket) + "</p>\n";
    return samples::Page("Catalogue", kShop,
                         Table(rows) + summary + samples::Button("/cgi-bin/shop/basket", "Basket") +
                             "<script src=\"/html/shop/basket.js\"></script>\n");
}

std::string ShowBasket(const samples::Form&, Basket& basket)
{
    int total = 0;
    std::string rows;
    for (const Item& item : kItems) {
        const int count = basket[item.key];
        total += count * item.cents;
        if (count > 0) {
            rows += Row(std::to_string(count) + " &times; " + item.name,
                        samples::FormatCents(count * item.cents));
        }
    }
    const std::string sum = samples::FormatCents(total);
    std::string body = Table(rows + Row("<b>Total</b>", "<b>" + sum + "</b>"));
    if (total > 0) {
        body += samples::Button("/cgi-bin/pay/pay?amount=" + sum, "Pay");
    }
    return samples::Page("Basket", kCatalogue, body);
}

std::string Add(const samples::Form& form, Basket& basket)
{
    const auto wanted = form.find("item");
    for (const Item& item : kItems) {
        if (wanted != form.end() && wanted->second == item.key) {
            ++basket[item.key];
            return ShowBasket(form, basket);
        }
    }
    return "Status: 404 Not Found\r\n" +
           samples::Page("Shop", kCatalogue, samples::Card("<p>There is no such item.</p>"));
}

// The terminal is going down: leaves a trace where the application may write.
std::string Stop(const samples::Form&, Basket& basket)
{
    const char* directory = std::getenv("APP_TMP_DIR");
    std::ofstream trace(std::string(directory == nullptr ? "/tmp" : directory) + "/stopped");
    trace << "asked to stop, " << (basket.empty() ? "nobody has shopped" : "the basket is given up") << '\n';
    return "Content-Type: text/plain\r\n\r\nstopping\n";
}

struct Route {
    std::string_view path;
    std::string (*answer)(const samples::Form&, Basket&);
};

constexpr std::array<Route, 5> kRoutes = {{{"/cgi-bin/shop/catalogue", Catalogue},
                                           {"/cgi-bin/shop/basket", ShowBasket},
                                           {"/cgi-bin/shop/add", Add},
                                           {"/cgi-bin/shop/summary", Summary},
                                           {"/cgi-bin/shop/stop", Stop}}};

std::string_view Parameter(const char* name, const FCGX_Request& request)
{
    const char* value = FCGX_GetParam(name, request.envp);
    return value == nullptr ? std::string_view() : value;
}

std::string Answer(std::string_view uri, std::string_view query, Basket& basket)
{
    const std::string_view path = uri.substr(0, uri.find('?'));
    for (const Route& route : kRoutes) {
        if (path == route.path) {
            return route.answer(samples::ParseForm(query), basket);
        }
    }
    return "Status: 404 Not Found\r\nContent-Type: text/plain\r\n\r\nThere is no such page.\n";
}

} // namespace

int main()
{
    const char* path = std::getenv("APP_FASTCGI_SOCKET");
    // The web server's account reaches the socket as a member of the application's group.
    umask(0007);
    const int listener = path != nullptr && FCGX_Init() == 0 ? FCGX_OpenSocket(path, 16) : -1;
    FCGX_Request request;
    if (listener < 0 || FCGX_InitRequest(&request, listener, 0) != 0) {
        std::cerr << "shopd: cannot listen on the socket named by APP_FASTCGI_SOCKET\n";
        return 1;
    }
    Basket basket;
    while (FCGX_Accept_r(&request) == 0) {
        const std::string answer =
            Answer(Parameter("REQUEST_URI", request), Parameter("QUERY_STRING", request), basket);
        FCGX_PutStr(answer.data(), static_cast<int>(answer.size()), request.out);
    }
    return 0;
}
