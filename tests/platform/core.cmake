# Core platform tests: errors and trace support, descriptor sets, processes,
# sockets and terminals, the machine, files. They use no fixed path or port, so
# they run without the sandbox.
nxa_test(platform_exceptions_test SOURCES exceptions_test.cc LIBS vlplatform)
nxa_test(platform_log_util_test SOURCES log_util_test.cc LIBS vlplatform)
nxa_test(platform_fd_set_test SOURCES fd_set_test.cc LIBS vlplatform)
nxa_test(platform_wait_fds_interest_test SOURCES wait_fds_interest_test.cc LIBS vlplatform)
nxa_test(platform_proc_test SOURCES proc_test.cc LIBS vlplatform ${CMAKE_DL_LIBS} TIMEOUT 120)
nxa_test(platform_net_test SOURCES net_test.cc LIBS vlplatform ${CMAKE_DL_LIBS})
nxa_test(platform_pty_test SOURCES pty_test.cc LIBS vlplatform)
nxa_test(platform_system_test SOURCES system_test.cc LIBS vlplatform ${CMAKE_DL_LIBS})
nxa_test(platform_fs_test SOURCES fs_test.cc LIBS vlplatform)

nxa_test(platform_exports_test SOURCES exports_test.cc)
target_compile_definitions(platform_exports_test PRIVATE VLPLATFORM_FILE="$<TARGET_FILE:vlplatform>")
add_dependencies(platform_exports_test vlplatform)
