#include "PrivateRoot.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

void RequirePrivateRoot()
{
    if (access("/run/kx-private-root", F_OK) != 0) {
        std::cerr << "This test kills processes and changes the system: run it with scripts/sandbox.\n";
        std::exit(125); // NOLINT(concurrency-mt-unsafe): nothing else has begun yet
    }
}

void EnterPrivateRoot()
{
    RequirePrivateRoot();
    close_range(STDERR_FILENO + 1, ~0U, 0);
}
