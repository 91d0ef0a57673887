# Run by CPack before it packs: gives each package the files that Debian's policy asks for, in the
# places that it names.
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(share ${CPACK_TEMPORARY_DIRECTORY}/runtime/usr/share)
file(REMOVE_RECURSE ${share}/doc/Quorvel)  # the licence, which `copyright` names
configure_file(${CPACK_QUORVEL_PACKAGING}/libqvapi1/lintian-overrides
  ${share}/lintian/overrides/libqvapi1 COPYONLY)

set(share ${CPACK_TEMPORARY_DIRECTORY}/development/usr/share)
file(RENAME ${share}/doc/Quorvel ${share}/doc/libqvapi-dev)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(documents ${root}/usr/share/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  file(COPY ${CPACK_QUORVEL_PACKAGING}/copyright DESTINATION ${documents})
  configure_file(${CPACK_QUORVEL_PACKAGING}/changelog ${documents}/changelog.Debian COPYONLY)
  file(GLOB compressed ${documents}/changelog.Debian ${root}/usr/share/man/*/*)
  run(gzip -9n ${compressed})
endforeach()

# Fails when the library exports other symbols than the package says.
file(GLOB library ${CPACK_TEMPORARY_DIRECTORY}/runtime/usr/lib/*/libqvapi.so.1.*)
run(dpkg-gensymbols -c4 -plibqvapi1 -v${CPACK_PACKAGE_VERSION} -e${library}
  -I${CPACK_QUORVEL_PACKAGING}/libqvapi1/symbols -O/dev/null)
