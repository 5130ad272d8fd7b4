# Fan-out benchmarks.
