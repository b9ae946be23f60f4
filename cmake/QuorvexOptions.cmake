# Compiler settings shared by every Quorvex target.

if(QVX_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()

if(QVX_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "QVX_FUZZ needs clang (libFuzzer)")
  endif()
  # Instrument everything for coverage; only the fuzz targets link the libFuzzer main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()

# qvx_target_warnings(target): strict warnings on our own code only.
function(qvx_target_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                             -Wimplicit-fallthrough)
    if(QVX_WERROR)
      target_compile_options(${target} PRIVATE -Werror)
    endif()
  endif()
endfunction()

# qvx_library(name sources...): one static library per subsystem folder.
function(qvx_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  qvx_target_warnings(${name})
endfunction()

# Third-party libraries come from their static archives where Debian ships them, and
# quorvex itself also takes the C++ runtime statically: mapping and relocating a dozen
# shared libraries cost every command about 2 ms of start-up (symbol lookups and a
# hundred page faults), a tenth of a small log's whole run. Sanitizer and fuzz builds
# keep the shared libraries.
option(QVX_STATIC_DEPS "Link third-party libraries from their static archives" ON)
set(QVX_STATIC_DEPS_ACTIVE OFF)
if(QVX_STATIC_DEPS AND NOT WIN32 AND NOT QVX_SANITIZE AND NOT QVX_FUZZ)
  set(QVX_STATIC_DEPS_ACTIVE ON)
endif()

# qvx_static_archive(target archive): points the imported library target (a found
# package's, or a pkg-config interface target's) at lib<archive>.a instead of the
# shared library, when static dependencies are wanted and the archive exists.
function(qvx_static_archive target archive)
  if(NOT QVX_STATIC_DEPS_ACTIVE)
    return()
  endif()
  find_library(QVX_ARCHIVE_${archive} NAMES lib${archive}.a)
  if(NOT QVX_ARCHIVE_${archive})
    return()
  endif()
  set(path ${QVX_ARCHIVE_${archive}})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    get_target_property(libs ${target} INTERFACE_LINK_LIBRARIES)
    list(TRANSFORM libs REPLACE "^.*/lib${archive}\\.so[.0-9]*$" "${path}")
    set_property(TARGET ${target} PROPERTY INTERFACE_LINK_LIBRARIES "${libs}")
  else()
    set_property(TARGET ${target} PROPERTY IMPORTED_LOCATION ${path})
    get_target_property(configs ${target} IMPORTED_CONFIGURATIONS)
    if(configs)
      foreach(config IN LISTS configs)
        set_property(TARGET ${target} PROPERTY IMPORTED_LOCATION_${config} ${path})
      endforeach()
    endif()
  endif()
endfunction()
