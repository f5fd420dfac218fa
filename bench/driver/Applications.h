#pragma once

#include <string>

namespace kxbench {

constexpr auto kApplication = "app0000"; ///< the first; its program "stamp" notes when it is executed
constexpr unsigned kFirstAccount = 4000;

/// Replaces all applications by \a count new ones, each with an account and configuration of its own.
void InstallApplications(int count);

/// \return the name of the application with this number, counted from 0
std::string ApplicationName(int number);

} // namespace kxbench
