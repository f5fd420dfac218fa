// The line between the CGI programs of the application "pay" and its service that keeps the journal: one line
// with the cents goes there, one line with the number of the receipt comes back.
#pragma once

#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace samples {

constexpr auto kJournalSocket = "/tmp/pay/journal.sock";

// The address of the journal's socket.
inline sockaddr_un JournalAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(kJournalSocket).copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
    return address;
}

} // namespace samples
