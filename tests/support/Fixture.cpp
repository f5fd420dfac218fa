#include "Fixture.h"

#include "misc/Log.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>

void Fixture::initTestCase()
{
    const com::veltrasys::common::qt::LogInitializer handler;
}

void Fixture::init()
{
    TakeLog();
}

void EnterPrivateRoot()
{
    if (access("/run/kx-private-root", F_OK) != 0) {
        std::cerr << "This test kills processes and changes the system: run it with scripts/sandbox.\n";
        std::exit(125); // NOLINT(concurrency-mt-unsafe): there is one thread yet
    }
    close_range(STDERR_FILENO + 1, ~0U, 0);
}
