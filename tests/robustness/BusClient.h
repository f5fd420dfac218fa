#pragma once

#include <dbus/dbus.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace torture {

struct Unref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
    void operator()(DBusPendingCall* call) const { dbus_pending_call_unref(call); }
};
using Message = std::unique_ptr<DBusMessage, Unref>;

constexpr auto kService = "com.veltrasys.kx.core";

/// How long a caller on the bus waits for its reply when it does not say: after that the answer is lost.
constexpr int kReplyTimeout = 25'000;

/// \return a call of the daemon without arguments
Message MethodCall(const char* path, const char* interface, const char* member);

// Pieces of messages. \a to is where the next argument of one goes.

void AppendText(DBusMessageIter& to, const std::string& text);
void AppendEntry(DBusMessageIter& map, const std::string& key, const std::string& value);

/// A map of texts, as the daemon takes it.
using Entries = std::vector<std::pair<std::string, std::string>>;
void AppendMap(DBusMessageIter& to, const Entries& entries);

// Calls of the daemon's methods.

Message StartCall(const Entries& request);
Message SystemCall(dbus_int32_t id, const Entries& arguments = {});
Message ToolsCall(const char* member, const std::vector<std::string>& arguments);

/// \return the call that has an application run the program with which it is installed here
Message StartProgram(const char* application, const std::string& parameters);

/// A caller with a connection to the bus of its own, to be used from one thread. It works below Qt, which
/// would not send most of what a hostile caller can.
class BusClient {
public:
    /// Connects to the system bus, which may have been restarted since the last client did.
    BusClient();
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// \return whether the bus took the connection and has not ended it since
    bool IsConnected() const;

    /// Sends a message without waiting for anything but room in the socket.
    void Send(const Message& message);

    /// \return the reply, which may be an error; an error of this side when none came within \a milliseconds;
    ///         null when the connection is lost
    Message Call(const Message& call, int milliseconds = kReplyTimeout);

    /// \return the connection that owns the daemon's name; empty when none does
    std::string DaemonConnection();

private:
    /// Forgets what came besides replies.
    void Drain();

    DBusConnection* m_connection = nullptr;
};

/// \return whether the reply says that no answer came
bool IsUnanswered(const Message& reply);

/// \return the arguments of a message as text, such as {"errorCode": 0}; the name of the error if it is one
std::string Describe(const Message& message);

} // namespace torture
