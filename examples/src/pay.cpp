// CGI program of the application "pay": takes the form's amount, has the journal record it, shows the
// receipt.
#include "Journal.h"
#include "Web.h"
#include "misc/UniqueFd.h"

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr auto kForm = "/cgi-bin/page/show?path=pay/index.html";
constexpr std::size_t kMaxForm = 4096;

std::string ReadFormData()
{
    const char* method = std::getenv("REQUEST_METHOD");
    if (method == nullptr || std::string_view(method) != "POST") {
        const char* query = std::getenv("QUERY_STRING");
        return query == nullptr ? "" : query;
    }
    std::string body(kMaxForm, '\0');
    std::cin.read(body.data(), static_cast<std::streamsize>(body.size()));
    body.resize(static_cast<std::size_t>(std::cin.gcount()));
    return body;
}

// The journal's answer to the request; empty when it does not answer within two seconds.
std::string Exchange(int fd, const std::string& request)
{
    const timeval limit{2, 0};
    const sockaddr_un address = samples::JournalAddress();
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        return {};
    }
    std::string answer(32, '\0');
    const ssize_t size = read(fd, answer.data(), answer.size());
    answer.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return answer.substr(0, answer.find('\n'));
}

std::string Record(int cents)
{
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd ? Exchange(fd.Get(), std::to_string(cents) + "\n") : std::string();
}

std::string Refusal(const std::string& reason)
{
    return samples::Card("<h2>Not paid</h2><p>" + reason + "</p>") + samples::Button(kForm, "Try again");
}

std::string Receipt(int cents, const std::string& number)
{
    std::string body =
        R"(<p class="amount">)" + samples::FormatCents(cents) + R"( &euro;</p><table class="rows">)";
    body += "<tr><td>Result</td><td>Approved</td></tr>";
    body += "<tr><td>Receipt</td><td>" + samples::EscapeHtml(number) + "</td></tr></table>";
    return samples::Card(body) + samples::Button("/cgi-bin/page/show?path=desktop/index.html", "Done");
}

std::string Answer(const samples::Form& form)
{
    const auto amount = form.find("amount");
    const auto cents = amount == form.end() ? std::nullopt : samples::ParseCents(amount->second);
    if (!cents) {
        return samples::Page("Pay", kForm, Refusal("This is not an amount that can be paid."));
    }
    const std::string number = Record(*cents);
    if (number.empty()) {
        return samples::Page("Pay", kForm, Refusal("The journal does not answer."));
    }
    return samples::Page("Receipt", kForm, Receipt(*cents, number));
}

} // namespace

int main()
{
    std::cout << Answer(samples::ParseForm(ReadFormData()));
    return 0;
}
