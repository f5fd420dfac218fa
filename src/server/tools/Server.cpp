#include "server/tools/Server.h"

#include <Registry.h>

namespace core::tools {

Server::Server(QObject* parent) : QObject(parent), m_registry(std::make_shared<com::veltrasys::Registry>()) {}

} // namespace core::tools
