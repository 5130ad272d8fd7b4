# Bus throughput benchmark: 512-byte messages from one client to another
# through a broker the benchmark starts itself. Not a ctest test.
add_executable(bus_throughput_bench ${CMAKE_CURRENT_SOURCE_DIR}/bus_throughput.cc)
target_link_libraries(bus_throughput_bench PRIVATE vlplatform benchmark::benchmark)
