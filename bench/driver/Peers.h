#pragma once

#include <memory>
#include <string>
#include <vector>

namespace kxbench {

/// Something that launches the program "stamp" as the application's account when it is asked to, over its own
/// control channel.
class Launcher {
public:
    Launcher() = default;
    virtual ~Launcher() = default;
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    virtual std::string Name() const = 0;

    /// Asks for a launch, and may wait for an answer. Throws when the answer is a refusal.
    virtual void Launch() = 0;
};

/// The daemon first, then the limit, the limit with libcurl, dbus-daemon and the other peers. They run until
/// the list goes out of scope.
std::vector<std::unique_ptr<Launcher>> StartLaunchers();

} // namespace kxbench
