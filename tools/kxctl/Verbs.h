#pragma once

#include "CommandLine.h"

#include <vector>

/// The table of the command line, one function for each group of verbs.
namespace kxctl {

const std::vector<Verb>& ApplicationVerbs();
const std::vector<Verb>& TimeVerbs();
const std::vector<Verb>& SystemVerbs();
const std::vector<Verb>& MonitorVerbs();
const std::vector<Verb>& CheckVerbs();

} // namespace kxctl
