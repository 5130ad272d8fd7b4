# Ini parser and zip archive tests.
nxa_test(ini_parser_test SOURCES ini_parser_test.cc LIBS vlplatform)
nxa_test(zipper_test SOURCES zipper_test.cc LIBS vlplatform PkgConfig::LIBZIP)
nxa_test(zipper_destination_test SOURCES zipper_destination_test.cc LIBS vlplatform PkgConfig::LIBZIP)
nxa_test(zipper_limits_test SOURCES zipper_limits_test.cc LIBS vlplatform PkgConfig::LIBZIP)
