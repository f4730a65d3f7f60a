# Monocypher 4.x as the library target `monocypher`, compiled from its one source file.
#
# MONOCYPHER_ROOT, in the cache or the environment, names a directory that holds monocypher.c
# and monocypher.h, in itself or as an installed copy keeps them (src/, include/).
# tools/setup leaves a copy whose checksums it has compared under build/deps/monocypher,
# which is the default.
set(default_root "${CMAKE_SOURCE_DIR}/build/deps/monocypher")
if(DEFINED ENV{MONOCYPHER_ROOT})
  set(default_root "$ENV{MONOCYPHER_ROOT}")
endif()
set(MONOCYPHER_ROOT "${default_root}" CACHE PATH
    "Directory with monocypher.c and monocypher.h, or an installed copy")

find_path(MONOCYPHER_INCLUDE_DIR monocypher.h
  PATHS ${MONOCYPHER_ROOT} PATH_SUFFIXES include src
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_file(MONOCYPHER_SOURCE monocypher.c
  PATHS ${MONOCYPHER_ROOT} PATH_SUFFIXES src
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_library(MONOCYPHER_LIBRARY monocypher
  PATHS ${MONOCYPHER_ROOT} PATH_SUFFIXES lib
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

include(FindPackageHandleStandardArgs)
if(MONOCYPHER_SOURCE)
  find_package_handle_standard_args(Monocypher REQUIRED_VARS MONOCYPHER_SOURCE
    MONOCYPHER_INCLUDE_DIR REASON_FAILURE_MESSAGE "run tools/setup")
else()
  find_package_handle_standard_args(Monocypher REQUIRED_VARS MONOCYPHER_LIBRARY
    MONOCYPHER_INCLUDE_DIR REASON_FAILURE_MESSAGE "run tools/setup")
endif()

if(Monocypher_FOUND AND NOT TARGET monocypher)
  if(MONOCYPHER_SOURCE)
    # Always optimised: unoptimised cipher code makes debug and sanitizer builds crawl.
    add_library(monocypher STATIC ${MONOCYPHER_SOURCE})
    target_compile_options(monocypher PRIVATE -O3)
    target_include_directories(monocypher SYSTEM PUBLIC ${MONOCYPHER_INCLUDE_DIR})
  else()
    add_library(monocypher UNKNOWN IMPORTED)
    set_target_properties(monocypher PROPERTIES IMPORTED_LOCATION ${MONOCYPHER_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${MONOCYPHER_INCLUDE_DIR})
  endif()
endif()
