#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStringList>

/// The registry's file as the tests of library and tool see it from outside, and the tool as the other
/// process.
namespace registrystore {

constexpr auto kFolder = "/var/lib/kxregistry";
constexpr auto kFile = "/var/lib/kxregistry/registry.ini";
constexpr auto kConfiguration = "/etc/kxregistry.conf";

/// \return whether files may be made and removed here: nowhere but in the private root
inline bool IsPrivateRoot()
{
    return QFile::exists("/run/kx-private-root");
}

inline void Remove()
{
    QDir(kFolder).removeRecursively();
    QFile::remove(kConfiguration);
}

inline bool Write(const QString& path, const QByteArray& text,
                  QIODevice::OpenMode mode = QIODevice::WriteOnly | QIODevice::Truncate)
{
    QFile file(path);
    return file.open(mode) && file.write(text) == text.size();
}

inline QByteArray Read(const QString& path = kFile)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

struct Outcome {
    int status;
    QByteArray output;
    QByteArray errors;
};

inline Outcome Run(const QString& program, const QStringList& arguments)
{
    QProcess tool;
    tool.start(program, arguments);
    tool.waitForFinished();
    const int status = tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
    return {status, tool.readAllStandardOutput(), tool.readAllStandardError()};
}

inline Outcome RunTool(const QStringList& arguments)
{
    return Run(KX_REGISTRY_TOOL, arguments);
}

} // namespace registrystore
