#pragma once

#include "BusClient.h"

#include <cstdint>
#include <random>
#include <string>

namespace torture {

/// What attacks are made of. Random numbers of one thread; the same seed gives the same attack.
class Chance {
public:
    explicit Chance(std::uint64_t seed) : m_engine(seed) {}

    /// \return a number from 0 to \a limit - 1
    size_t Below(size_t limit) { return static_cast<size_t>(m_engine() % limit); }
    bool OneIn(size_t times) { return Below(times) == 0; }
    std::uint64_t Bits() { return m_engine(); }

    template<typename Container>
    const auto& OneOf(const Container& container)
    {
        return container[Below(std::size(container))];
    }

private:
    std::mt19937_64 m_engine;
};

/// Makes messages that no well-meaning caller sends, but that the bus delivers.
class HostileMessage {
public:
    explicit HostileMessage(Chance& chance) : m_chance(chance) {}

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
    std::string AnyName(size_t longest);
    std::string AnyText();
    std::string AnySignature(int depth);
    void AppendAny(DBusMessageIter& to, const std::string& signature, int depth);
    void AppendType(DBusMessageIter& to, DBusSignatureIter& type, int depth);
    void AppendArray(DBusMessageIter& to, DBusSignatureIter& type, int depth);
    void AppendVariant(DBusMessageIter& to, int depth);
    void AppendBasic(DBusMessageIter& to, int type);
    void AppendHostileMap(DBusMessageIter& to, const char* const* keys, size_t count);

    Chance& m_chance;
};

} // namespace torture
