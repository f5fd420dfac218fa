#pragma once

#include "Registry.h"

#include <QCoreApplication>
#include <QProcess>
#include <QStringList>

#include <cstdlib>
#include <memory>

/// The test program as the other processes that write the registry.
namespace registrywriters {

constexpr int kKeysPerWriter = 200;
constexpr int kLongValue = 20000;

/// Writes keys of its own and, in between, one that all writers share.
inline void WriteKeys(const QString& writer)
{
    com::veltrasys::Registry registry;
    for (int index = 0; index < kKeysPerWriter; ++index) {
        const QString key = QStringLiteral("%1.%2").arg(writer).arg(index);
        if (!registry.setValue(key, index) || !registry.setValue("shared", writer)) {
            std::exit(EXIT_FAILURE);
        }
    }
}

/// Goes back and forth between two long values until it is killed.
[[noreturn]] inline void WriteForEver()
{
    com::veltrasys::Registry registry;
    for (bool first = true;; first = !first) {
        registry.setValue("long", QString(kLongValue, first ? 'a' : 'b'));
    }
}

/// \return whether \a arguments asked for a writer, which has then done its work
inline bool RunWriter(const QStringList& arguments)
{
    if (arguments.value(0) == "--write-for-ever") {
        WriteForEver();
    }
    if (arguments.value(0) == "--write") {
        WriteKeys(arguments.value(1));
        return true;
    }
    return false;
}

inline std::unique_ptr<QProcess> StartWriter(const QStringList& arguments)
{
    auto process = std::make_unique<QProcess>();
    process->setProcessChannelMode(QProcess::ForwardedChannels);
    process->start(QCoreApplication::applicationFilePath(), arguments);
    return process;
}

} // namespace registrywriters
