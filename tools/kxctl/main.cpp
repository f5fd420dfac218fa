#include "Verbs.h"

int main(int argc, char** argv)
{
    using namespace kxctl;
    return cli::Main(
        argc, argv,
        {"kxctl",
         "Asks the terminal's core management daemon, and checks applications.",
         {{"json", nullptr, "print the answer as JSON"},
          {"timeout", "SECONDS", "wait for the daemon at most this long (default 30)"}},
         {{"Applications", ApplicationVerbs()},
          {"Time and settings", TimeVerbs()},
          {"System", SystemVerbs()},
          {"Watching and checking", {StatusVerb(), MonitorVerb(), CheckVerb()}}},
         "kxctl VERB --help tells more. Exit status: 0 done, 1 refused or problems found, 2 wrong "
         "usage,\n3 the daemon is not reachable."});
}
