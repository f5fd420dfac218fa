#include "BusClient.h"

namespace torture {
namespace {

/// The bus tells why it refused; nobody here asks.
class IgnoredError {
public:
    IgnoredError() { dbus_error_init(&m_error); }
    ~IgnoredError() { dbus_error_free(&m_error); }
    IgnoredError(const IgnoredError&) = delete;
    IgnoredError& operator=(const IgnoredError&) = delete;
    operator DBusError*() { return &m_error; }

private:
    DBusError m_error;
};

template<typename Value>
Value ValueAt(DBusMessageIter& at)
{
    Value value{};
    dbus_message_iter_get_basic(&at, &value);
    return value;
}

void DescribeAll(DBusMessageIter& at, const char* separator, std::string& text);

void DescribeContainer(DBusMessageIter& at, const char* brackets, const char* separator, std::string& text)
{
    DBusMessageIter inner;
    dbus_message_iter_recurse(&at, &inner);
    text += brackets[0];
    DescribeAll(inner, separator, text);
    text += brackets[1];
}

void DescribeOne(DBusMessageIter& at, std::string& text)
{
    switch (dbus_message_iter_get_arg_type(&at)) {
    case DBUS_TYPE_STRING:
        text += '"' + std::string(ValueAt<const char*>(at)) + '"';
        break;
    case DBUS_TYPE_BOOLEAN:
        text += ValueAt<dbus_bool_t>(at) != 0 ? "true" : "false";
        break;
    case DBUS_TYPE_INT32:
        text += std::to_string(ValueAt<dbus_int32_t>(at));
        break;
    case DBUS_TYPE_UINT32:
        text += std::to_string(ValueAt<dbus_uint32_t>(at));
        break;
    case DBUS_TYPE_ARRAY:
        DescribeContainer(at, "{}", ", ", text);
        break;
    case DBUS_TYPE_DICT_ENTRY:
        DescribeContainer(at, "  ", ": ", text);
        break;
    case DBUS_TYPE_VARIANT:
        DescribeContainer(at, "<>", "", text);
        break;
    default:
        text += '?';
    }
}

void DescribeAll(DBusMessageIter& at, const char* separator, std::string& text)
{
    for (bool first = true; dbus_message_iter_get_arg_type(&at) != DBUS_TYPE_INVALID; first = false) {
        text += first ? "" : separator;
        DescribeOne(at, text);
        dbus_message_iter_next(&at);
    }
}

} // namespace

Message MethodCall(const char* path, const char* interface, const char* member)
{
    return Message(dbus_message_new_method_call(kService, path, interface, member));
}

void AppendText(DBusMessageIter& to, const std::string& text)
{
    const char* characters = text.c_str();
    dbus_message_iter_append_basic(&to, DBUS_TYPE_STRING, &characters);
}

void AppendEntry(DBusMessageIter& map, const std::string& key, const std::string& value)
{
    DBusMessageIter entry;
    DBusMessageIter variant;
    dbus_message_iter_open_container(&map, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    AppendText(entry, key);
    dbus_message_iter_open_container(&entry, DBUS_TYPE_VARIANT, "s", &variant);
    AppendText(variant, value);
    dbus_message_iter_close_container(&entry, &variant);
    dbus_message_iter_close_container(&map, &entry);
}

void AppendMap(DBusMessageIter& to, const Entries& entries)
{
    DBusMessageIter map;
    dbus_message_iter_open_container(&to, DBUS_TYPE_ARRAY, "{sv}", &map);
    for (const auto& [key, value] : entries) {
        AppendEntry(map, key, value);
    }
    dbus_message_iter_close_container(&to, &map);
}

Message StartCall(const Entries& request)
{
    Message call = MethodCall("/Applications", "com.veltrasys.kx.core.Applications", "Start");
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    AppendMap(to, request);
    return call;
}

Message SystemCall(dbus_int32_t id, const Entries& arguments)
{
    Message call = MethodCall("/System", "com.veltrasys.kx.core.System", "SystemCall");
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    dbus_message_iter_append_basic(&to, DBUS_TYPE_INT32, &id);
    AppendMap(to, arguments);
    return call;
}

Message ToolsCall(const char* member, const std::vector<std::string>& arguments)
{
    Message call = MethodCall("/Tools", "com.veltrasys.kx.core.Tools", member);
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    for (const std::string& argument : arguments) {
        AppendText(to, argument);
    }
    return call;
}

Message StartProgram(const char* application, const std::string& parameters)
{
    return StartCall({{"application", application}, {"binary", "unruly"}, {"params", parameters}});
}

BusClient::BusClient() : m_connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, IgnoredError()))
{
    if (m_connection != nullptr) {
        dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    }
}

BusClient::~BusClient()
{
    if (m_connection != nullptr) {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
    }
}

bool BusClient::IsConnected() const
{
    return m_connection != nullptr && dbus_connection_get_is_connected(m_connection) != 0;
}

void BusClient::Send(const Message& message)
{
    if (IsConnected() && dbus_connection_send(m_connection, message.get(), nullptr) != 0) {
        dbus_connection_flush(m_connection);
        dbus_connection_read_write(m_connection, 0);
        Drain();
    }
}

Message BusClient::Call(const Message& call, int milliseconds)
{
    DBusPendingCall* sent = nullptr;
    if (!IsConnected() ||
        dbus_connection_send_with_reply(m_connection, call.get(), &sent, milliseconds) == 0 ||
        sent == nullptr) {
        return nullptr;
    }
    const std::unique_ptr<DBusPendingCall, Unref> pending(sent);
    dbus_pending_call_block(pending.get());
    Drain();
    return Message(dbus_pending_call_steal_reply(pending.get()));
}

std::string BusClient::DaemonConnection()
{
    const Message call(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner"));
    const char* name = kService;
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    const Message reply = Call(call);
    const char* owner = "";
    if (reply) {
        dbus_message_get_args(reply.get(), IgnoredError(), DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
    }
    return owner;
}

void BusClient::Drain()
{
    while (DBusMessage* message = dbus_connection_pop_message(m_connection)) {
        dbus_message_unref(message);
    }
}

bool IsUnanswered(const Message& reply)
{
    return !reply || dbus_message_is_error(reply.get(), DBUS_ERROR_NO_REPLY) != 0 ||
           dbus_message_is_error(reply.get(), DBUS_ERROR_DISCONNECTED) != 0;
}

std::string Describe(const Message& message)
{
    if (!message) {
        return "no answer";
    }
    if (const char* error = dbus_message_get_error_name(message.get())) {
        return error;
    }
    std::string text;
    DBusMessageIter at;
    dbus_message_iter_init(message.get(), &at);
    DescribeAll(at, ", ", text);
    return text;
}

} // namespace torture
