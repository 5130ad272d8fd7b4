// Counts every operator new of the benchmark process (single-threaded).
#pragma once

// Number of operator new calls so far.
extern long allocations;
