#include "Allocation.h"

#include <cstdint>
namespace Parvane {

namespace {

int gRemaining = 0;
bool gIsLasting = false; // what fails goes on failing
bool gFails = false;     // it does so now
int gCount = 0;
std::size_t gLeast = 0;
std::size_t gMost = SIZE_MAX;
// The test itself is no part of the service.
int gPlatformDepth = 1;
void (*gReturnHook)() = nullptr;

} // namespace

void Allocation::FailNth(int n)
{
    gRemaining = n;
    gLeast = 0;
    gMost = SIZE_MAX;
}

void Allocation::FailFrom(int n)
{
    FailNth(n);
    gIsLasting = true;
}

void Allocation::FailSize(std::size_t least, std::size_t most)
{
    gRemaining = 1;
    gLeast = least;
    gMost = most;
}

bool Allocation::StopFailing()
{
    const bool done = gRemaining == 0;
    gRemaining = 0;
    gIsLasting = false;
    gFails = false;
    return done;
}

bool Allocation::Fails(std::size_t size)
{
    if (gPlatformDepth != 0) {
        return false;
    }
    ++gCount;
    if (gRemaining == 0 || size < gLeast || size > gMost) {
        return gFails;
    }
    --gRemaining;
    gFails = gIsLasting && gRemaining == 0;
    return gRemaining == 0;
}

int Allocation::Count()
{
    return gCount;
}

void PlatformScope::SetReturnHook(void (*hook)())
{
    gReturnHook = hook;
}

PlatformScope::PlatformScope()
{
    ++gPlatformDepth;
}

PlatformScope::~PlatformScope()
{
    if (gPlatformDepth == 1 && gReturnHook != nullptr) {
        gReturnHook();
    }
    --gPlatformDepth;
}

ServiceScope::ServiceScope() : mOuter(gPlatformDepth)
{
    gPlatformDepth = 0;
}

ServiceScope::~ServiceScope()
{
    gPlatformDepth = mOuter;
}

} // namespace Parvane
