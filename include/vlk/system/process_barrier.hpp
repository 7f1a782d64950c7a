// The process-wide memory barrier of membarrier(2), private expedited form:
// when privateExpeditedBarrier() returns, every other running thread of the
// process has executed a full memory barrier. Lets a rare writer pay for
// the ordering that frequent readers then get from compiler barriers alone.
#pragma once

namespace vlk::system {

// Registers the process for the barrier; false where the kernel refuses it.
// Registering again is harmless.
bool registerPrivateExpeditedBarrier();
// Needs a successful registration; otherwise the kernel refuses the call
// and nothing happens.
void privateExpeditedBarrier();

}  // namespace vlk::system
