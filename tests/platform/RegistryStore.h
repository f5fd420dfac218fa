#pragma once

#include "CommandRun.h"
#include "Files.h"
#include "PrivateRoot.h"
#include "Table.h"

/// The registry's file as the tests of library and tool see it from outside, and the tool as the other
/// process.
namespace registrystore {

const QString kFolder = "/var/lib/kxregistry";
const QString kFile = "/var/lib/kxregistry/registry.ini";
const QString kConfiguration = "/etc/kxregistry.conf";

inline void RemoveStore()
{
    RemoveAll(kFolder);
    RemoveAll(kConfiguration);
}

inline kxtest::CommandRun RunTool(const QStringList& arguments)
{
    return kxtest::RunCommand(KX_REGISTRY_TOOL, arguments);
}

} // namespace registrystore
