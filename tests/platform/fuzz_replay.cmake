# The fuzzers' saved inputs (fuzz/corpus/<fuzzer>/), replayed in every build by
# a plain driver, so that a past finding can never come back unnoticed.
foreach(fuzzer ini_parser unzip bus_decode)
  add_executable(${fuzzer}_replay
    ${PROJECT_SOURCE_DIR}/fuzz/${fuzzer}_fuzzer.cc
    ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${fuzzer}_replay PRIVATE vlplatform)
  add_test(NAME FuzzReplay.${fuzzer}
           COMMAND ${fuzzer}_replay ${PROJECT_SOURCE_DIR}/fuzz/corpus/${fuzzer})
  set_tests_properties(FuzzReplay.${fuzzer} PROPERTIES TIMEOUT 300)
endforeach()

# The bus's wire form is private to the platform library; its replay compiles it in.
target_sources(bus_decode_replay PRIVATE
  ${PROJECT_SOURCE_DIR}/platform/src/bus_names.cc
  ${PROJECT_SOURCE_DIR}/platform/src/bus_wire.cc)
target_include_directories(bus_decode_replay PRIVATE ${PROJECT_SOURCE_DIR}/platform/src)
