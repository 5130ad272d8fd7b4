# The fuzzers' saved inputs (fuzz/corpus/<fuzzer>/), replayed in every build by
# a plain driver, so that a past finding can never come back unnoticed.
foreach(fuzzer ini_parser unzip)
  add_executable(${fuzzer}_replay
    ${PROJECT_SOURCE_DIR}/fuzz/${fuzzer}_fuzzer.cc
    ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${fuzzer}_replay PRIVATE vlplatform)
  add_test(NAME FuzzReplay.${fuzzer}
           COMMAND ${fuzzer}_replay ${PROJECT_SOURCE_DIR}/fuzz/corpus/${fuzzer})
  set_tests_properties(FuzzReplay.${fuzzer} PROPERTIES TIMEOUT 300)
endforeach()
