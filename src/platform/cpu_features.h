// What the processor the program runs on can do, for code that picks a faster path at
// run time (the program itself is built for any x86-64).
#pragma once

namespace qvx {

// True when the processor has AVX2 and the system saves its registers across switches.
// Asked on first use only: the compiler's own check runs a dozen processor queries in
// every start of the program, each of which is slow under a hypervisor.
bool CpuHasAvx2();

} // namespace qvx
