# nxa_alloc_counter: operator new and delete that count allocations
# (alloc_counter.h), for the tests and the benchmarks that measure them. An
# OBJECT library: a binary linking it always gets the replacement operators.
include_guard(GLOBAL)
add_library(nxa_alloc_counter OBJECT ${CMAKE_CURRENT_LIST_DIR}/alloc_counter.cc)
target_include_directories(nxa_alloc_counter PUBLIC ${CMAKE_CURRENT_LIST_DIR})
