#pragma once

#include "AnyValue.h"
#include "BusClient.h"

#include <cstddef>

namespace torture {

/// Makes messages that no well-meaning caller sends, but that the bus delivers.
class HostileMessage {
public:
    explicit HostileMessage(Chance& chance) : m_chance(chance), m_any(chance) {}

    /// \return one of any kind; null when chance made something that the bus would not take
    Message Make();

private:
    struct Kind;
    static const Kind& AnyKind(Chance& chance);

    Message WrongArguments();
    Message UnknownNames();
    Message HostileStart();
    Message HostileSystemCall();
    Message HostileTools();
    Message HugeMap();
    Message MegabyteText();
    Message DeepVariant();
    Message WithDescriptors();
    Message ForgedSignal();
    Message StrayReply();
    Message Mutation();

    Message Target();
    void AppendHostileMap(DBusMessageIter& to, const char* const* keys, size_t count);

    Chance& m_chance;
    AnyValue m_any;
};

} // namespace torture
