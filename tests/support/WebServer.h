#pragma once

#include "Patience.h"

#include <QProcess>
#include <QTcpSocket>

namespace kxtest {

constexpr quint16 kWebPort = 80;

/// Starts the web server in the foreground.
/// \return false when it does not answer within the bound
inline bool StartWebServer(QProcess& server, const QString& configuration)
{
    server.start("lighttpd", {"-D", "-f", configuration});
    return WaitFor([] {
        QTcpSocket socket;
        socket.connectToHost("127.0.0.1", kWebPort);
        return socket.waitForConnected(100);
    });
}

} // namespace kxtest
