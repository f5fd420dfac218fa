#pragma once

#include "common/CommandLine.h"

#include <vector>

/// The table of the command line, one function for each file of verbs.
namespace kxctl {

using cli::ExitStatus;
using cli::Failure;
using cli::Request;
using cli::Verb;

std::vector<Verb> ApplicationVerbs();
std::vector<Verb> TimeVerbs();
std::vector<Verb> SystemVerbs();
Verb StatusVerb();
Verb MonitorVerb();
Verb CheckVerb();

} // namespace kxctl
