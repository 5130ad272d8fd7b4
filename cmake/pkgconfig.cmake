# nxa_install_pkgconfig(<template>): installs <libdir>/pkgconfig/<name>.pc made
# from <template> (<name>.pc.in) with the prefix the tree is installed to, not
# the one configured: `cmake --install build --prefix /opt/velmora` gives a
# file that points into /opt/velmora. The template's @NXA_PC_PREFIX@ is that
# prefix, @NXA_PC_LIBDIR@ and @NXA_PC_INCLUDEDIR@ the directories relative to
# it (or absolute, when configured so); the rest is filled in at configure time.
#
# The file is written straight to its destination (under DESTDIR, when set),
# never into the build tree, so installs of one build tree into several
# prefixes at once cannot mix their files up.
function(nxa_install_pkgconfig template)
  get_filename_component(name ${template} NAME_WLE)
  set(staged ${CMAKE_CURRENT_BINARY_DIR}/${name}.in)
  set(NXA_PC_PREFIX "@NXA_PC_PREFIX@")
  foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
      set(NXA_PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
      set(NXA_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
  endforeach()
  configure_file(${template} ${staged} @ONLY)

  set(dest "${CMAKE_INSTALL_LIBDIR}/pkgconfig/${name}")
  install(CODE "
    set(NXA_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(dest \"${dest}\")
    if(NOT IS_ABSOLUTE \"\${dest}\")
      set(dest \"\${CMAKE_INSTALL_PREFIX}/\${dest}\")
    endif()
    set(dest \"\$ENV{DESTDIR}\${dest}\")
    message(STATUS \"Installing: \${dest}\")
    configure_file(\"${staged}\" \"\${dest}\" @ONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${dest}\")
  " COMPONENT dev)
endfunction()
