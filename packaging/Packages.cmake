# The Debian packages; scripts/packages builds and tries them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quorvel)
set(CPACK_PACKAGE_CONTACT "Quorvel maintainers <maintainers@quorvel.invalid>")
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/PolicyFiles.cmake)
set(CPACK_QUORVEL_PACKAGING ${CMAKE_CURRENT_LIST_DIR})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 0quorvel1)  # not from Debian
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/api)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libqvapi1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA shlibs symbols triggers)
list(TRANSFORM CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA PREPEND
  ${CMAKE_CURRENT_LIST_DIR}/libqvapi1/)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "hands log records to the collection agent of the host
Servers load this library to hand log records to the collection agent on the
same host, over a Unix-domain stream, TCP or UDP.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqvapi-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libqvapi1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "headers of libqvapi, which hands over log records
What it takes to build programs with libqvapi: the headers, a CMake package, a
pkg-config file and examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qvctl)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqvapi1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "shows and writes the log records of libqvapi
qvctl plays the collection agent on a developer's machine, writes records as
applications do, and shows and changes what the library shares with the agent.")

include(CPack)
