#include "server/system/CommandOutput.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace core::system {
namespace {

constexpr int kLineSize = 80;

} // namespace

bool ForEachLine(const char* command, const std::function<bool(const char* line)>& take)
{
    // The command lines are the daemon's own.
    const std::unique_ptr<FILE, decltype(&pclose)> output(popen(command, "re"), &pclose);
    if (!output) {
        return false;
    }
    std::array<char, kLineSize> line{};
    while (std::fgets(line.data(), kLineSize, output.get()) != nullptr && take(line.data())) {
    }
    return true;
}

int NumberInLastLine(const char* command)
{
    constexpr int kDecimal = 10;
    long number = -1;
    ForEachLine(command, [&](const char* line) {
        number = std::strtol(line, nullptr, kDecimal);
        return true;
    });
    return static_cast<int>(number);
}

} // namespace core::system
