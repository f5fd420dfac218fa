#include "Fixture.h"

#include "misc/Log.h"

void Fixture::initTestCase()
{
    const com::veltrasys::common::qt::LogInitializer handler;
}

void Fixture::init()
{
    TakeLog();
}
