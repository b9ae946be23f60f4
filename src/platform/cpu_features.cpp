#include "platform/cpu_features.h"

#if (defined(__GNUC__) || defined(__clang__)) && (defined(__x86_64__) || defined(__i386__))
#include <cpuid.h>
#define QVX_HAVE_CPUID 1
#endif

namespace qvx {

namespace {

#ifdef QVX_HAVE_CPUID
bool QueryAvx2() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
  constexpr unsigned kOsXsave = 1u << 27, kAvx = 1u << 28;
  if ((c & (kOsXsave | kAvx)) != (kOsXsave | kAvx)) return false;
  // The system must save the SSE and AVX register state (XCR0 bits 1 and 2).
  unsigned lo = 0, hi = 0;
  __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
  if ((lo & 0x6u) != 0x6u) return false;
  if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return false;
  return (b & (1u << 5)) != 0;
}
#endif

} // namespace

bool CpuHasAvx2() {
#ifdef QVX_HAVE_CPUID
  static const bool has = QueryAvx2();
  return has;
#else
  return false;
#endif
}

} // namespace qvx
