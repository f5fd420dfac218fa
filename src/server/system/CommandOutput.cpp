#include "server/system/CommandOutput.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace core::system {

std::vector<std::string> OutputLines(const char* command)
{
    constexpr int kLineSize = 80;
    std::vector<std::string> lines;
    const std::unique_ptr<FILE, decltype(&pclose)> output(popen(command, "re"), &pclose);
    std::array<char, kLineSize> line{};
    while (output && std::fgets(line.data(), kLineSize, output.get()) != nullptr) {
        lines.emplace_back(line.data());
    }
    return lines;
}

int NumberInLastLine(const char* command)
{
    constexpr int kDecimal = 10;
    const std::vector<std::string> lines = OutputLines(command);
    return lines.empty() ? -1 : static_cast<int>(std::strtol(lines.back().c_str(), nullptr, kDecimal));
}

int GetType(const char* path)
{
    return NumberInLastLine((std::string("cat ") + path).c_str());
}

} // namespace core::system
