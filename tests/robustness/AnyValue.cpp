#include "AnyValue.h"

#include <array>

namespace torture {
namespace {

constexpr size_t kMegabyte = 1'000'000;

constexpr std::array<const char*, 10> kTexts{"",
                                             "pay",
                                             "desktop",
                                             "../../../bin/sh",
                                             "'\"`reboot`$(reboot);reboot\n|reboot&%1%s%n",
                                             "\xEF\xBF\xBF",
                                             "\xF0\x9F\x92\xB3\xCC\x81\xE2\x80\xAE",
                                             "2026-02-30 25:61:61",
                                             "Europe/../../../etc",
                                             "[[[*?\\"};

constexpr std::array<const char*, 11> kBasicTypes{"y", "b", "n", "q", "i", "u", "x", "t", "d", "s", "o"};

} // namespace

void AnyValue::Append(DBusMessageIter& to)
{
    AppendOf(to, Signature(kLevels), kLevels);
}

void AnyValue::AppendVariant(DBusMessageIter& to)
{
    AppendVariant(to, kLevels);
}

std::string AnyValue::Name(size_t longest)
{
    constexpr auto kCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    std::string name(1 + m_chance.Below(longest), '_');
    for (char& character : name) {
        character = kCharacters[m_chance.Below(53)];
    }
    return name;
}

std::string AnyValue::Text()
{
    if (m_chance.OneIn(50)) {
        return std::string(m_chance.Below(kMegabyte), '\'');
    }
    return m_chance.OneIn(3) ? Name(kLongestName) : m_chance.OneOf(kTexts);
}

std::string AnyValue::Signature(int levels)
{
    const size_t choice = levels > 0 ? m_chance.Below(8) : 7;
    switch (choice) {
    case 0:
        return "v";
    case 1:
        return "a" + Signature(levels - 1);
    case 2:
        return "(" + Signature(levels - 1) + Signature(levels - 1) + ")";
    case 3:
        return std::string("a{") + m_chance.OneOf(kBasicTypes) + Signature(levels - 1) + "}";
    case 4:
        return "a{sv}";
    default:
        return m_chance.OneOf(kBasicTypes);
    }
}

void AnyValue::AppendOf(DBusMessageIter& to, const std::string& signature, int levels)
{
    DBusSignatureIter type;
    dbus_signature_iter_init(&type, signature.c_str());
    AppendType(to, type, levels);
}

void AnyValue::AppendType(DBusMessageIter& to, DBusSignatureIter& type, int levels)
{
    const int code = dbus_signature_iter_get_current_type(&type);
    if (code == DBUS_TYPE_ARRAY) {
        AppendArray(to, type, levels);
    } else if (code == DBUS_TYPE_VARIANT) {
        AppendVariant(to, levels - 1);
    } else if (dbus_type_is_basic(code) != 0) {
        AppendBasic(to, code);
    } else {
        DBusSignatureIter member;
        DBusMessageIter inside;
        dbus_signature_iter_recurse(&type, &member);
        dbus_message_iter_open_container(&to, code, nullptr, &inside);
        do {
            AppendType(inside, member, levels);
        } while (dbus_signature_iter_next(&member) != 0);
        dbus_message_iter_close_container(&to, &inside);
    }
}

void AnyValue::AppendArray(DBusMessageIter& to, DBusSignatureIter& type, int levels)
{
    DBusSignatureIter element;
    DBusMessageIter inside;
    dbus_signature_iter_recurse(&type, &element);
    char* signature = dbus_signature_iter_get_signature(&element);
    dbus_message_iter_open_container(&to, DBUS_TYPE_ARRAY, signature, &inside);
    dbus_free(signature);
    for (size_t left = m_chance.Below(5); left > 0; --left) {
        AppendType(inside, element, levels);
    }
    dbus_message_iter_close_container(&to, &inside);
}

void AnyValue::AppendVariant(DBusMessageIter& to, int levels)
{
    DBusMessageIter inside;
    const std::string signature = Signature(levels);
    dbus_message_iter_open_container(&to, DBUS_TYPE_VARIANT, signature.c_str(), &inside);
    AppendOf(inside, signature, levels);
    dbus_message_iter_close_container(&to, &inside);
}

void AnyValue::AppendBasic(DBusMessageIter& to, int type)
{
    if (type == DBUS_TYPE_STRING) {
        AppendText(to, Text());
    } else if (type == DBUS_TYPE_OBJECT_PATH) {
        const std::string path = "/" + Name(kLongestName);
        const char* characters = path.c_str();
        dbus_message_iter_append_basic(&to, type, &characters);
    } else {
        DBusBasicValue value{};
        value.u64 = type == DBUS_TYPE_BOOLEAN ? m_chance.Below(2) : m_chance.Bits();
        dbus_message_iter_append_basic(&to, type, &value);
    }
}

} // namespace torture
