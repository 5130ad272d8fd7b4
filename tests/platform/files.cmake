# Ini parser and zip archive tests.
nxa_test(ini_parser_test SOURCES ini_parser_test.cc LIBS vlplatform)
nxa_test(zipper_test SOURCES zipper_test.cc LIBS vlplatform PkgConfig::LIBZIP)

# The fuzzers' saved inputs (fuzz/corpus/<parser>/), replayed in every build by
# a plain driver, so that a past finding can never come back unnoticed.
foreach(parser ini_parser unzip)
  add_executable(${parser}_replay
    ${PROJECT_SOURCE_DIR}/fuzz/${parser}_fuzzer.cc
    ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
  target_link_libraries(${parser}_replay PRIVATE vlplatform)
  add_test(NAME FuzzReplay.${parser}
           COMMAND ${parser}_replay ${PROJECT_SOURCE_DIR}/fuzz/corpus/${parser})
  set_tests_properties(FuzzReplay.${parser} PROPERTIES TIMEOUT 300)
endforeach()
