#include "HostileMessage.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <utility>
#include <vector>

namespace torture {
namespace {

constexpr size_t kMegabyte = 1'000'000;
constexpr int kHugeMap = 100'000;
constexpr int kDeepest = 60; // the bus takes no more than 64 levels
constexpr dbus_int32_t kUsbGadget = 96;

struct Method {
    const char* path;
    const char* interface;
    const char* member;
};

// Restart is not among them: it keeps every caller waiting for two seconds, as it is meant to.
constexpr std::array<Method, 15> kMethods{{
    {"/Applications", "com.veltrasys.kx.core.Applications", "Enumerate"},
    {"/Applications", "com.veltrasys.kx.core.Applications", "Start"},
    {"/System", "com.veltrasys.kx.core.System", "SystemCall"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "SetSystemTime"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "SetTimeZone"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "SetTimeInfo"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "ResetTimeInfoSource"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "SaveVariableValue"},
    {"/Tools", "com.veltrasys.kx.core.Tools", "EnableAudiopayd"},
    {"/", DBUS_INTERFACE_INTROSPECTABLE, "Introspect"},
    {"/System", DBUS_INTERFACE_PEER, "Ping"},
    {"/System", DBUS_INTERFACE_PEER, "GetMachineId"},
    {"/Tools", DBUS_INTERFACE_PROPERTIES, "Get"},
    {"/Tools", DBUS_INTERFACE_PROPERTIES, "Set"},
    {"/Tools", DBUS_INTERFACE_PROPERTIES, "GetAll"},
}};

constexpr std::array<const char*, 4> kStartKeys{"application", "binary", "params", "default"};
constexpr std::array<const char*, 14> kSystemKeys{
    "mode", "usbForceFullspeed", "dflt",    "usbuid", "hubid", "newconf", "caching", "url",
    "text", "buffer-resp",       "command", "number", "",      "drmode"};

/// A call that lacks its map, which goes to \a to.
Message CallWithoutMap(const char* path, const char* interface, const char* member, DBusMessageIter& to)
{
    Message call = MethodCall(path, interface, member);
    dbus_message_iter_init_append(call.get(), &to);
    return call;
}

Message StartWithoutMap(DBusMessageIter& to)
{
    return CallWithoutMap("/Applications", "com.veltrasys.kx.core.Applications", "Start", to);
}

Message SystemCallWithoutMap(dbus_int32_t id, DBusMessageIter& to)
{
    Message call = CallWithoutMap("/System", "com.veltrasys.kx.core.System", "SystemCall", to);
    dbus_message_iter_append_basic(&to, DBUS_TYPE_INT32, &id);
    return call;
}

} // namespace

struct HostileMessage::Kind {
    size_t weight;
    Message (HostileMessage::*make)();
};

const HostileMessage::Kind& HostileMessage::AnyKind(Chance& chance)
{
    static const std::array<Kind, 12> kKinds{{
        {100, &HostileMessage::WrongArguments},
        {100, &HostileMessage::UnknownNames},
        {100, &HostileMessage::HostileStart},
        {100, &HostileMessage::HostileSystemCall},
        {100, &HostileMessage::HostileTools},
        {1, &HostileMessage::HugeMap},
        {3, &HostileMessage::MegabyteText},
        {50, &HostileMessage::DeepVariant},
        {20, &HostileMessage::WithDescriptors},
        {50, &HostileMessage::ForgedSignal},
        {50, &HostileMessage::StrayReply},
        {200, &HostileMessage::Mutation},
    }};
    size_t sum = 0;
    for (const Kind& kind : kKinds) {
        sum += kind.weight;
    }
    size_t left = chance.Below(sum);
    size_t index = 0;
    while (left >= kKinds[index].weight) {
        left -= kKinds[index++].weight;
    }
    return kKinds[index];
}

Message HostileMessage::Make()
{
    return (this->*AnyKind(m_chance).make)();
}

/// An existing method; sometimes without an interface, which the daemon then has to find.
Message HostileMessage::Target()
{
    const Method& method = m_chance.OneOf(kMethods);
    return MethodCall(method.path, m_chance.OneIn(8) ? nullptr : method.interface, method.member);
}

Message HostileMessage::WrongArguments()
{
    Message call = Target();
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    for (size_t left = m_chance.Below(4); left > 0; --left) {
        m_any.Append(to);
    }
    return call;
}

Message HostileMessage::UnknownNames()
{
    const Method& known = m_chance.OneOf(kMethods);
    const std::string path = m_chance.OneIn(2)
                                 ? "/" + m_any.Name(m_chance.OneIn(10) ? kMegabyte : AnyValue::kLongestName)
                                 : known.path;
    const std::string interface =
        m_chance.OneIn(2) ? m_any.Name(100) + '.' + m_any.Name(100) : std::string(known.interface);
    Message call = MethodCall(path.c_str(), interface.c_str(), m_any.Name(AnyValue::kLongestName).c_str());
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    m_any.Append(to);
    return call;
}

void HostileMessage::AppendHostileMap(DBusMessageIter& to, const char* const* keys, size_t count)
{
    DBusMessageIter map;
    dbus_message_iter_open_container(&to, DBUS_TYPE_ARRAY, "{sv}", &map);
    for (size_t left = m_chance.Below(count + 1); left > 0; --left) {
        const char* key = keys[m_chance.Below(count)];
        if (m_chance.OneIn(2)) {
            AppendEntry(map, key, m_any.Text());
            continue;
        }
        DBusMessageIter entry;
        dbus_message_iter_open_container(&map, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
        AppendText(entry, key);
        m_any.AppendVariant(entry);
        dbus_message_iter_close_container(&map, &entry);
    }
    dbus_message_iter_close_container(&to, &map);
}

Message HostileMessage::HostileStart()
{
    DBusMessageIter to;
    Message call = StartWithoutMap(to);
    AppendHostileMap(to, kStartKeys.data(), kStartKeys.size());
    return call;
}

Message HostileMessage::HostileSystemCall()
{
    DBusMessageIter to;
    const auto id = static_cast<dbus_int32_t>(m_chance.OneIn(8) ? m_chance.Bits() : 95 + m_chance.Below(12));
    Message call = SystemCallWithoutMap(id, to);
    AppendHostileMap(to, kSystemKeys.data(), kSystemKeys.size());
    return call;
}

/// The right number of texts for a method of /Tools, with the wrong ones in them.
Message HostileMessage::HostileTools()
{
    static constexpr std::array<std::pair<const char*, size_t>, 4> kTools{
        {{"SetSystemTime", 1}, {"SetTimeZone", 1}, {"SetTimeInfo", 3}, {"SaveVariableValue", 2}}};
    const auto& tool = m_chance.OneOf(kTools);
    std::vector<std::string> texts(tool.second);
    for (std::string& text : texts) {
        text = m_any.Text();
    }
    return ToolsCall(tool.first, texts);
}

Message HostileMessage::HugeMap()
{
    const bool oneKey = m_chance.OneIn(2); // a map on the bus may name a key twice
    Entries entries;
    entries.reserve(kHugeMap);
    for (int entry = 0; entry < kHugeMap; ++entry) {
        entries.emplace_back(oneKey ? "mode" : "key" + std::to_string(entry), "value");
    }
    return m_chance.OneIn(2) ? SystemCall(kUsbGadget, entries) : StartCall(entries);
}

Message HostileMessage::MegabyteText()
{
    const std::string text((1 + m_chance.Below(8)) * kMegabyte, 'x');
    const Entries entries{
        {"application", "pay"}, {m_chance.OneOf(kStartKeys), text}, {m_chance.OneOf(kSystemKeys), text}};
    const auto id = static_cast<dbus_int32_t>(kUsbGadget + m_chance.Below(10));
    return m_chance.OneIn(2) ? SystemCall(id, entries) : StartCall(entries);
}

/// A map with a variant in a variant in a variant, as deep as the bus lets them be.
Message HostileMessage::DeepVariant()
{
    std::array<DBusMessageIter, kDeepest> levels{};
    DBusMessageIter to;
    DBusMessageIter map;
    DBusMessageIter entry;
    Message call = StartWithoutMap(to);
    dbus_message_iter_open_container(&to, DBUS_TYPE_ARRAY, "{sv}", &map);
    dbus_message_iter_open_container(&map, DBUS_TYPE_DICT_ENTRY, nullptr, &entry);
    AppendText(entry, m_chance.OneOf(kStartKeys));
    const size_t depth = 1 + m_chance.Below(kDeepest);
    DBusMessageIter* outer = &entry;
    for (size_t level = 0; level < depth; ++level) {
        dbus_message_iter_open_container(outer, DBUS_TYPE_VARIANT, level + 1 < depth ? "v" : "s",
                                         &levels[level]);
        outer = &levels[level];
    }
    AppendText(*outer, "pay");
    for (size_t level = depth; level-- > 0;) {
        dbus_message_iter_close_container(level > 0 ? &levels[level - 1] : &entry, &levels[level]);
    }
    dbus_message_iter_close_container(&map, &entry);
    dbus_message_iter_close_container(&to, &map);
    return call;
}

Message HostileMessage::WithDescriptors()
{
    Message call = Target();
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    DBusMessageIter to;
    dbus_message_iter_init_append(call.get(), &to);
    for (size_t left = 1 + m_chance.Below(8); left > 0; --left) {
        dbus_message_iter_append_basic(&to, DBUS_TYPE_UNIX_FD, &null); // the message keeps a copy
    }
    close(null);
    return call;
}

/// A signal to the daemon alone that claims what only the bus or the browser may say.
Message HostileMessage::ForgedSignal()
{
    static constexpr std::array<Method, 4> kSignals{{
        {"/org/freedesktop/DBus", DBUS_INTERFACE_DBUS, "NameOwnerChanged"},
        {"/org/freedesktop/DBus", DBUS_INTERFACE_DBUS, "NameLost"},
        {"/", "com.veltrasys.browser.Server", "loadCompleted"},
        {"/Applications", "com.veltrasys.kx.core.Applications", "OnTerminate"},
    }};
    const Method& claim = m_chance.OneOf(kSignals);
    Message signal(dbus_message_new_signal(claim.path, claim.interface, claim.member));
    dbus_message_set_destination(signal.get(), kService);
    DBusMessageIter to;
    dbus_message_iter_init_append(signal.get(), &to);
    for (const char* text : {"com.veltrasys.browser", ":1.1", ""}) {
        AppendText(to, text);
    }
    return signal;
}

Message HostileMessage::StrayReply()
{
    const bool isError = m_chance.OneIn(2);
    Message reply(dbus_message_new(isError ? DBUS_MESSAGE_TYPE_ERROR : DBUS_MESSAGE_TYPE_METHOD_RETURN));
    if (isError) {
        dbus_message_set_error_name(reply.get(), DBUS_ERROR_FAILED);
    }
    dbus_message_set_destination(reply.get(), kService);
    dbus_message_set_reply_serial(reply.get(), static_cast<dbus_uint32_t>(1 + m_chance.Below(1000)));
    return reply;
}

/// Another message with some bytes changed. Much of that is refused here as the bus would refuse it; the rest
/// is valid and meant by nobody.
Message HostileMessage::Mutation()
{
    const Message original = m_chance.OneIn(2) ? HostileStart() : HostileSystemCall();
    dbus_message_set_serial(original.get(), 1);
    char* bytes = nullptr;
    int size = 0;
    if (dbus_message_marshal(original.get(), &bytes, &size) == 0) {
        return nullptr;
    }
    for (size_t left = 1 + m_chance.Below(4); left > 0; --left) {
        bytes[m_chance.Below(static_cast<size_t>(size))] = static_cast<char>(m_chance.Bits());
    }
    DBusError error = DBUS_ERROR_INIT;
    const Message changed(dbus_message_demarshal(bytes, size, &error));
    dbus_error_free(&error);
    dbus_free(bytes);
    return Message(changed ? dbus_message_copy(changed.get()) : nullptr); // the copy has no serial yet
}

} // namespace torture
