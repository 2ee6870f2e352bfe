#include "support/FakeClock.h"

namespace qel::test {

FakeClock::FakeClock(double start) : now_(start) { platform::Clock::install(this); }

FakeClock::~FakeClock() { platform::Clock::install(nullptr); }

}  // namespace qel::test
