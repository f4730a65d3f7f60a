# Compiler settings for all of qv, and the functions that the folders are made of.

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(qv_options INTERFACE)
target_include_directories(qv_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(qv_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wvla
  -Wformat=2 -Wcast-align -Werror)
# Assertions name files as the tree does, not as this machine does.
target_compile_options(qv_options INTERFACE -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
target_compile_definitions(qv_options INTERFACE QV_RELAY_HOST="${QV_RELAY_HOST}")
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(qv_options INTERFACE -Wthread-safety)
endif()
# assert guards our own invariants and stays on in every build.
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELWITHDEBINFO "${CMAKE_CXX_FLAGS_RELWITHDEBINFO}")
string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

if(WIN32)
  target_compile_definitions(qv_options INTERFACE __USE_MINGW_ANSI_STDIO=1)
  # One file that needs only system DLLs.
  target_link_options(qv_options INTERFACE -static)
  # The same sources give the same bytes, whenever they are linked, and also by a ccache that
  # is set to turn paths into relative ones.
  target_link_options(qv_options INTERFACE -Wl,--no-insert-timestamp)
  file(RELATIVE_PATH above ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
  target_compile_options(qv_options INTERFACE -fmacro-prefix-map=${above}=)
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_link_options(qv_options INTERFACE -s)
  endif()
endif()
if(QV_SANITIZE)
  add_compile_options(-fsanitize=${QV_SANITIZE} -fno-omit-frame-pointer)
  if(QV_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=all)
  endif()
  add_link_options(-fsanitize=${QV_SANITIZE})
endif()

# qv_library(host DEPENDS qv_protocol ...) makes, from the folder's .cpp files,
#   qv_host        everything but the Windows edges, in every build
#   qv_host_win32  the edges (*_win32.cpp), in Windows builds
# Files named *_main_win32.cpp are programs and belong to neither.
function(qv_library name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;WIN32_LIBRARIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  set(edges ${sources})
  list(FILTER sources EXCLUDE REGEX "_win32\\.cpp$")
  list(FILTER edges INCLUDE REGEX "_win32\\.cpp$")
  list(FILTER edges EXCLUDE REGEX "_main_win32\\.cpp$")
  if(sources)
    add_library(qv_${name} STATIC ${sources})
    target_compile_options(qv_${name} PRIVATE -fno-exceptions -fno-rtti)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      # Threads may outlive main: no global is taken away from under them.
      target_compile_options(qv_${name} PRIVATE -Wexit-time-destructors)
    endif()
    target_link_libraries(qv_${name} PUBLIC qv_options ${ARG_DEPENDS})
  else()
    add_library(qv_${name} INTERFACE)
    target_link_libraries(qv_${name} INTERFACE qv_options ${ARG_DEPENDS})
  endif()
  if(WIN32 AND edges)
    add_library(qv_${name}_win32 STATIC ${edges})
    target_compile_options(qv_${name}_win32 PRIVATE -fno-exceptions -fno-rtti)
    target_link_libraries(qv_${name}_win32 PUBLIC qv_${name} ${ARG_WIN32_LIBRARIES})
    if(sources)
      # The portable part calls its edges back; a cycle makes the linker see both twice.
      target_link_libraries(qv_${name} PUBLIC qv_${name}_win32)
    endif()
  endif()
endfunction()

# qv_resources(qv_host "qv host" variable): sets the variable to an .rc file with icon, manifest
# and version of an executable of this name.
function(qv_resources name description result)
  set(folder ${CMAKE_SOURCE_DIR}/app/resources)
  set(resources ${CMAKE_BINARY_DIR}/resources/${name}.rc)
  configure_file(${folder}/program.rc.in ${resources} @ONLY)
  set_property(SOURCE ${resources} DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR} PROPERTY
    OBJECT_DEPENDS "${folder}/qv.ico;${folder}/qv.manifest")
  set(${result} ${resources} PARENT_SCOPE)
endfunction()

# qv_program(qv_host SOURCE host_main_win32.cpp DESCRIPTION "..." LIBRARIES ...): one of the
# product's executables, in build/windows/ when this is the release build. A console program
# unless GUI is given. The target is called qv_host_program, since libraries have such names
# too. The description is what Explorer and the task manager show.
function(qv_program name)
  cmake_parse_arguments(ARG "GUI" "SOURCE;DESCRIPTION" "LIBRARIES" ${ARGN})
  if(NOT WIN32 OR NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_SOURCE})
    return()
  endif()
  set(target ${name}_program)
  if(NOT ARG_DESCRIPTION)
    set(ARG_DESCRIPTION ${name})
  endif()
  qv_resources(${name} "${ARG_DESCRIPTION}" resources)
  add_executable(${target} ${ARG_SOURCE} ${resources})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name})
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
  target_link_libraries(${target} PRIVATE ${ARG_LIBRARIES})
  # What was really linked in, for the bill of materials (tools/package).
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/maps)
  target_link_options(${target} PRIVATE -Wl,-Map=${CMAKE_BINARY_DIR}/maps/${name}.map)
  if(ARG_GUI)
    set_target_properties(${target} PROPERTIES WIN32_EXECUTABLE ON)
  endif()
  if(CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_BINARY_DIR MATCHES "/build/mingw-release$")
    set_target_properties(${target} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_SOURCE_DIR}/build/windows)
  endif()
  set_property(GLOBAL APPEND PROPERTY QV_PROGRAMS ${target})
endfunction()
