#pragma once

#include "BusClient.h"

#include <cstddef>
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

/// Makes values of random types for the arguments of messages.
class AnyValue {
public:
    static constexpr size_t kLongestName = 255; ///< of a member; an interface is one as well

    explicit AnyValue(Chance& chance) : m_chance(chance) {}

    /// Appends a value of any type.
    void Append(DBusMessageIter& to);
    /// Appends a variant that holds one.
    void AppendVariant(DBusMessageIter& to);

    /// \return up to \a longest characters of which a name on the bus may consist
    std::string Name(size_t longest);
    /// \return a text that somebody may stumble over
    std::string Text();

private:
    static constexpr int kLevels = 4; ///< of values within values

    std::string Signature(int levels);
    void AppendOf(DBusMessageIter& to, const std::string& signature, int levels);
    void AppendType(DBusMessageIter& to, DBusSignatureIter& type, int levels);
    void AppendArray(DBusMessageIter& to, DBusSignatureIter& type, int levels);
    void AppendVariant(DBusMessageIter& to, int levels);
    void AppendBasic(DBusMessageIter& to, int type);

    Chance& m_chance;
};

} // namespace torture
