#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

namespace kxbench {

/// A method of a service.
struct Method {
    const char* service;
    const char* path;
    const char* interface;
    const char* member;
};

constexpr Method kCheapest{"com.veltrasys.kx.core", "/Tools", "com.veltrasys.kx.core.Tools",
                           "IsAudiopaydEnabled"};
constexpr Method kEnumerate{"com.veltrasys.kx.core", "/Applications", "com.veltrasys.kx.core.Applications",
                            "Enumerate"};
constexpr Method kStart{"com.veltrasys.kx.core", "/Applications", "com.veltrasys.kx.core.Applications",
                        "Start"};
constexpr Method kTerminate{"com.veltrasys.kx.core", "/Applications", "com.veltrasys.kx.core.Applications",
                            "Terminate"};
constexpr Method kRecords{"com.veltrasys.bench.Records", "/", "com.veltrasys.bench.Records", "Enumerate"};
constexpr Method kBusPing{"com.veltrasys.bench.Bus", "/", "com.veltrasys.bench.Bus", "Ping"};

/// The reference service on QtDBus.
struct QtService {
    const char* program;
    Method ping;
    Method start;
};

constexpr QtService kQt{"/usr/libexec/kx-bench/qt-service",
                        {"com.veltrasys.bench.Qt", "/", "com.veltrasys.bench.Qt", "Ping"},
                        {"com.veltrasys.bench.Qt", "/", "com.veltrasys.bench.Qt", "Start"}};

/// A client on the bus. What fails throws.
class Bus {
public:
    explicit Bus(const std::string& address = "unix:path=/run/dbus/system_bus_socket");

    /// Calls and waits for the answer.
    /// \param types, arguments  as sd_bus_message_append takes them
    template<typename... Arguments>
    void Call(const Method& method, const char* types = "", Arguments... arguments)
    {
        Check(TryCall(method, types, arguments...), method.member);
    }

    /// The same, but a negative errno for an error.
    template<typename... Arguments>
    int TryCall(const Method& method, const char* types = "", Arguments... arguments)
    {
        return sd_bus_call_method(m_bus.get(), method.service, method.path, method.interface, method.member,
                                  nullptr, nullptr, types, arguments...);
    }

    /// From now on AwaitName notices \a name.
    void WatchName(const std::string& name);

    /// \return when, in microseconds of Now(), the watched name was seen to have an owner
    double AwaitName();

private:
    static void Check(int result, const char* what);
    static int OnNameOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);

    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> m_bus{nullptr, &sd_bus_flush_close_unref};
    double m_ownedSince = 0;
};

} // namespace kxbench
