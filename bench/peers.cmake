# Fan-out benchmarks: Peers::push of one 512-byte chunk to 1, 8 and 64 peers,
# with the allocations each push makes, and PeerLog::move of a full run log.
# Not a ctest test. Its peers need a real module, which connects to the bus on
# the fixed port, so run it inside the sandbox with its broker:
#   tests/sandbox/nxa-sandbox --broker -- <build>/bench/peers_bench
add_executable(peers_bench ${CMAKE_CURRENT_SOURCE_DIR}/peers_fanout.cc)
target_link_libraries(peers_bench PRIVATE nxaclient nxa_alloc_counter benchmark::benchmark)

# An idle module's cost per turn of the host's loop (run it in the sandbox
# with its broker, like peers_bench):
#   tests/sandbox/nxa-sandbox --broker -- <build>/bench/idle_turn_bench
add_executable(idle_turn_bench ${CMAKE_CURRENT_SOURCE_DIR}/idle_turn.cc)
target_link_libraries(idle_turn_bench PRIVATE nxaclient nxa_alloc_counter benchmark::benchmark)
