#include "Peers.h"

#include "Applications.h"
#include "Bus.h"
#include "Process.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace kxbench {
namespace {

constexpr auto kFolder = "/run/bench/";
constexpr int kServices = 16; ///< supervisors wait a second before they run the same service again

[[noreturn]] void Fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::string Stamp()
{
    return std::string(kPrograms) + "stamp";
}

class Daemon : public Launcher {
public:
    std::string Name() const override { return "kxcore `Start`"; }
    void Launch() override
    {
        m_bus.Call(kStart, "a{sv}", 2, "application", "s", kApplication, "binary", "s", "stamp");
    }

private:
    Process m_daemon = StartDaemon();
    Bus m_bus;
};

/// Fork and exec without any of the daemon's checks.
class BareLauncher : public Launcher {
public:
    std::string Name() const override { return "bare QtDBus, fork and exec in plain C"; }
    void Launch() override { m_bus.Call(kQt.start, "su", Stamp().c_str(), kFirstAccount); }

private:
    Process m_service = StartService(kQt.program, kQt.ping);
    Bus m_bus;
};

class Activation : public Launcher {
public:
    Activation() : m_daemon(StartBus())
    {
        WaitFor("dbus-daemon", [] { return fs::is_socket("/run/bench/bus"); });
        m_bus = std::make_unique<Bus>("unix:path=/run/bench/bus");
    }

    std::string Name() const override { return "dbus-daemon, activation with `User=`"; }

    /// The program does not take the name, so the answer is an error, which comes when the program has ended.
    void Launch() override
    {
        const int result = m_bus->TryCall(
            {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "StartServiceByName"},
            "su", "com.veltrasys.bench.Stamp", 0U);
        if (result == -ETIMEDOUT) {
            throw std::runtime_error("dbus-daemon does not answer");
        }
    }

private:
    /// The helper that is installed belongs to another group than the private root's message bus.
    static Process StartBus()
    {
        constexpr gid_t kMessageBus = 101;
        const std::string helper = std::string(kFolder) + "launch-helper";
        fs::copy_file("/usr/lib/dbus-1.0/dbus-daemon-launch-helper", helper,
                      fs::copy_options::overwrite_existing);
        if (chown(helper.c_str(), 0, kMessageBus) != 0 || chmod(helper.c_str(), 04750) != 0) {
            Fail(helper);
        }
        return Process(
            {"dbus-daemon", "--nofork", std::string("--config-file=") + kPrograms + "activation.conf"});
    }

    Process m_daemon;
    std::unique_ptr<Bus> m_bus;
};

/// runit and s6 differ in the names of two programs: each service is a folder with a script and a process
/// that supervises it, and takes orders from a pipe in there.
class Supervisor : public Launcher {
public:
    Supervisor(std::string name, const std::string& supervise, const std::string& changeIdentity)
        : m_name(std::move(name))
    {
        for (int i = 0; i < kServices; ++i) {
            const fs::path folder = kFolder + m_name + '-' + std::to_string(i);
            fs::create_directories(folder);
            std::ofstream(folder / "down").flush();
            std::ofstream(folder / "run")
                << "#!/bin/sh\nexec " << changeIdentity << ' ' << kApplication << ' ' << Stamp() << '\n';
            chmod((folder / "run").c_str(), 0755);
            m_supervisors.emplace_back(std::vector<std::string>{supervise, folder});
            const fs::path control = folder / "supervise/control";
            int fd = -1;
            WaitFor(control,
                    [&] { return (fd = open(control.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; });
            m_controls.push_back(fd);
        }
    }

    ~Supervisor() override
    {
        for (const int control : m_controls) {
            static_cast<void>(!write(control, "dx", 2)); // no service, then no supervisor
            close(control);
        }
    }

    std::string Name() const override { return m_name; }

    void Launch() override
    {
        if (write(m_controls[m_next++ % kServices], "o", 1) != 1) {
            Fail(m_name);
        }
    }

private:
    std::string m_name;
    std::vector<Process> m_supervisors;
    std::vector<int> m_controls;
    size_t m_next = 0;
};

class Supervisord : public Launcher {
public:
    Supervisord() : m_daemon({"supervisord", "-c", std::string(kPrograms) + "supervisord.conf"})
    {
        WaitFor("supervisord", [] { return fs::is_socket("/run/bench/supervisord"); });
    }

    std::string Name() const override { return "supervisord"; }

    void Launch() override
    {
        const std::string body =
            "<?xml version='1.0'?><methodCall><methodName>supervisor.startProcess</methodName><params>"
            "<param><value><string>stamp:" +
            std::to_string(m_next++ % kServices) +
            "</string></value></param>"
            "<param><value><boolean>0</boolean></value></param></params></methodCall>";
        const std::string answer =
            Exchange("POST /RPC2 HTTP/1.0\r\nContent-Type: text/xml\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n" + body);
        if (answer.find("<boolean>1</boolean>") == std::string::npos) {
            throw std::runtime_error("supervisord: " + answer);
        }
    }

private:
    static std::string Exchange(const std::string& request)
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const struct timeval patience = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/run/bench/supervisord");
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0 ||
            write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            Fail("supervisord");
        }
        std::array<char, 4096> buffer{};
        std::string answer;
        for (ssize_t count = 0; (count = read(fd, buffer.data(), buffer.size())) > 0;) {
            answer.append(buffer.data(), static_cast<size_t>(count));
        }
        close(fd);
        return answer;
    }

    Process m_daemon;
    size_t m_next = 0;
};

} // namespace

std::vector<std::unique_ptr<Launcher>> StartLaunchers()
{
    std::vector<std::unique_ptr<Launcher>> launchers;
    launchers.push_back(std::make_unique<Daemon>());
    launchers.push_back(std::make_unique<BareLauncher>());
    launchers.push_back(std::make_unique<Activation>());
    launchers.push_back(std::make_unique<Supervisor>("runit", "runsv", "chpst -u"));
    launchers.push_back(std::make_unique<Supervisor>("s6", "s6-supervise", "s6-setuidgid"));
    launchers.push_back(std::make_unique<Supervisord>());
    return launchers;
}

} // namespace kxbench
