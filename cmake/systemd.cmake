# nxa_install_unit(<template>): installs the systemd unit made from <template>
# (<name>.in) into <prefix>/${NXA_SYSTEMD_UNIT_DIR}, with the paths of the
# prefix the tree is installed to, not the one configured, so that a package
# built with `cpack` or an install with `--prefix` names its own programs.
# In the template, @NXA_BINDIR@, @NXA_DATADIR@ and @NXA_DEFAULT_FILE@ are
# filled in at install time; the settings file lives in /etc for the prefix
# /usr, and in <prefix>/etc otherwise.
#
# nxa_unit_sysconfdir_code: the install-time code that works out that
# directory (NXA_ETC), shared with the settings file's own install rule.
set(nxa_unit_sysconfdir_code "
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(NXA_ETC \"/etc\")
  else()
    set(NXA_ETC \"\${CMAKE_INSTALL_PREFIX}/etc\")
  endif()
")

function(nxa_install_unit template)
  get_filename_component(name ${template} NAME_WLE)
  install(CODE "
    ${nxa_unit_sysconfdir_code}
    set(NXA_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(NXA_DATADIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}\")
    set(NXA_DEFAULT_FILE \"\${NXA_ETC}/default/nxahost\")
    set(dest \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${NXA_SYSTEMD_UNIT_DIR}/${name}\")
    message(STATUS \"Installing: \${dest}\")
    configure_file(\"${template}\" \"\${dest}\" @ONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${dest}\")
  " COMPONENT tools)
endfunction()

# Installs the host's settings file into the settings directory above.
function(nxa_install_default_file source)
  install(CODE "
    ${nxa_unit_sysconfdir_code}
    set(dest \"\$ENV{DESTDIR}\${NXA_ETC}/default/nxahost\")
    message(STATUS \"Installing: \${dest}\")
    configure_file(\"${source}\" \"\${dest}\" COPYONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${dest}\")
  " COMPONENT tools)
endfunction()

# Makes the folder of the keys the host trusts (<settings>/nxahost/trusted-keys.d),
# empty: packages are checked once a key is put there.
function(nxa_install_trusted_keys_dir)
  install(CODE "
    ${nxa_unit_sysconfdir_code}
    set(dest \"\$ENV{DESTDIR}\${NXA_ETC}/nxahost/trusted-keys.d\")
    message(STATUS \"Installing: \${dest}\")
    file(MAKE_DIRECTORY \"\${dest}\")
  " COMPONENT tools)
endfunction()
