#pragma once

// AVX2 builds of the hottest pixel loops, taken at run time on processors that have AVX2.
// Each gives exactly the bits of its portable loop (integer sums and per-lane IEEE float
// steps, never fused multiply-adds), so turning them off only lets the portable loops be
// checked on any machine.
#if defined(__x86_64__) && defined(__GNUC__)
#define QUORVANE_WIDE 1
#define QUORVANE_AVX2 __attribute__((target("avx2")))
#endif

// Whether the wide loops run: the processor has AVX2 and they are allowed.
bool wideLoopsAllowed();

// Allows (the default) or forbids the wide loops.
void allowWideLoops(bool allowed);
