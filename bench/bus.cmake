# Bus throughput benchmark.
