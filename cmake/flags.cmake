# SPDX-License-Identifier: GPL-2.0
#
# kelm_flags: what every target is compiled with. Link to it privately.

add_library(kelm_flags INTERFACE)
target_include_directories(kelm_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(kelm_flags INTERFACE
  -Wall -Wextra -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wundef -Wcast-align
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
  -Werror -fno-omit-frame-pointer)
if(KELM_SANITIZE)
  # Line numbers are what a sanitizer's report needs, and half the time to build; assertions hold.
  foreach(language C CXX)
    set(CMAKE_${language}_FLAGS_RELWITHDEBINFO "-O1 -g1")
  endforeach()
  # For code that nothing waits for: half the time again.
  set(KELM_UNHURRIED -O0)
  target_compile_options(kelm_flags INTERFACE -fsanitize=${KELM_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(kelm_flags INTERFACE -fsanitize=${KELM_SANITIZE})
else()
  # Against what attackers make of mistakes; also what Debian builds its packages with.
  target_compile_options(kelm_flags INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    target_compile_options(kelm_flags INTERFACE -fcf-protection)
  endif()
  target_link_options(kelm_flags INTERFACE LINKER:-z,relro,-z,now)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
