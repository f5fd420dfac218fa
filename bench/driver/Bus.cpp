#include "Bus.h"

#include "Process.h"

#include <cstdint>
#include <system_error>

namespace kxbench {
namespace {

constexpr uint64_t kPatience = 10'000'000; // microseconds

} // namespace

void Bus::Check(int result, const char* what)
{
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), what);
    }
}

Bus::Bus(const std::string& address)
{
    sd_bus* bus = nullptr;
    Check(sd_bus_new(&bus), "a bus connection");
    m_bus.reset(bus);
    Check(sd_bus_set_address(bus, address.c_str()), address.c_str());
    Check(sd_bus_set_method_call_timeout(bus, kPatience), address.c_str());
    Check(sd_bus_set_bus_client(bus, 1), address.c_str());
    Check(sd_bus_start(bus), address.c_str());
}

int Bus::OnNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* /*error*/)
{
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) >= 0 && *after != '\0') {
        static_cast<Bus*>(self)->m_ownedSince = Now();
    }
    return 0;
}

void Bus::WatchName(const std::string& name)
{
    const std::string rule =
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + name + "'";
    Check(sd_bus_add_match(m_bus.get(), nullptr, rule.c_str(), &Bus::OnNameOwnerChanged, this), rule.c_str());
}

double Bus::AwaitName()
{
    m_ownedSince = 0;
    while (m_ownedSince == 0) {
        const int handled = sd_bus_process(m_bus.get(), nullptr);
        Check(handled, "waiting for a name");
        if (handled == 0) {
            const int more = sd_bus_wait(m_bus.get(), kPatience);
            Check(more == 0 ? -ETIMEDOUT : more, "waiting for a name");
        }
    }
    return m_ownedSince;
}

} // namespace kxbench
