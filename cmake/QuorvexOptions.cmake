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
