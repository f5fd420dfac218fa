// Service of the application "pay", started at boot under the application's account: keeps the journal of
// payments, /home/pay/files/journal.txt.
#include "Journal.h"
#include "misc/UniqueFd.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string JournalPath()
{
    const char* home = std::getenv("APP_HOME_DIR");
    return std::string(home == nullptr ? "/home/pay" : home) + "/files/journal.txt";
}

UniqueFd Listen()
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = samples::JournalAddress();
    unlink(samples::kJournalSocket);
    const bool listening =
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
        listen(fd.Get(), 16) == 0;
    return listening ? std::move(fd) : UniqueFd();
}

int CountReceipts()
{
    std::ifstream journal(JournalPath());
    std::string line;
    int count = 0;
    while (std::getline(journal, line)) {
        ++count;
    }
    return count;
}

// The amount of a request; 0 when the request is none.
int ReadCents(int fd)
{
    std::array<char, 32> text{};
    const ssize_t size = read(fd, text.data(), text.size() - 1);
    return size > 0 ? static_cast<int>(std::strtol(text.data(), nullptr, 10)) : 0;
}

bool Append(int number, int cents)
{
    std::ofstream journal(JournalPath(), std::ios::app);
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    journal << std::setw(4) << std::setfill('0') << number << std::put_time(&local, "  %Y-%m-%d %H:%M:%S  ")
            << std::setw(8) << std::setfill(' ') << cents / 100 << '.' << std::setw(2) << std::setfill('0')
            << cents % 100 << '\n';
    return journal.flush().good();
}

void Serve(int fd, int& receipts)
{
    const int cents = ReadCents(fd);
    if (cents <= 0 || !Append(receipts + 1, cents)) {
        return;
    }
    const std::string answer = std::to_string(++receipts) + "\n";
    if (write(fd, answer.data(), answer.size()) < 0) {
        std::cerr << "payd: receipt " << receipts << " could not be delivered\n";
    }
}

} // namespace

int main()
{
    // The web server's account is a member of the application's group and may talk to the journal.
    umask(0007);
    const UniqueFd listener = Listen();
    if (!listener) {
        std::cerr << "payd: cannot listen on " << samples::kJournalSocket << '\n';
        return 1;
    }
    int receipts = CountReceipts();
    for (;;) {
        const UniqueFd client(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client) {
            const timeval limit{2, 0};
            setsockopt(client.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
            Serve(client.Get(), receipts);
        }
    }
}
