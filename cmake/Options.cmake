# How this project's own code is compiled and linked. A folder that has such code includes this file; it applies to the
# targets that the folder and those below it make from then on. Nothing of it reaches other projects.
if(PROJECT_IS_TOP_LEVEL)
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Werror>)
endif()
add_compile_options(
  $<$<COMPILE_LANGUAGE:CXX>:-Wall>
  $<$<COMPILE_LANGUAGE:CXX>:-Wextra>
  $<$<COMPILE_LANGUAGE:CXX>:-Wpedantic>
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion>
  $<$<COMPILE_LANGUAGE:CXX>:-Wsign-conversion>
  $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:CXX>:-Wcast-align>
  $<$<COMPILE_LANGUAGE:CXX>:-Wformat=2>
  # Messages name a unit by its path below the source root. No path of the build machine stays in the program.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/src/=
  -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_compile_options(-Wthread-safety)
endif()
add_compile_definitions(_GLIBCXX_ASSERTIONS)
if(PROJECT_IS_TOP_LEVEL AND NOT TAVRO_SANITIZERS AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()

if(WIN32)
  add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0601)
  # The program is one file: the compiler's runtime libraries are linked statically. What it does not use is left out, and
  # larger functions are not inlined, so that it stays under 1.6 MB.
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-ffunction-sections> $<$<COMPILE_LANGUAGE:CXX>:-fdata-sections>
    $<$<COMPILE_LANGUAGE:CXX>:-fno-inline-functions> $<$<COMPILE_LANGUAGE:CXX>:--param=max-inline-insns-single=12>)
  add_link_options(-static -fstack-protector-strong -Wl,--gc-sections,--no-insert-timestamp,--dynamicbase,--high-entropy-va,--nxcompat)
else()
  if(NOT CMAKE_POSITION_INDEPENDENT_CODE) # else the code is to fit into shared libraries, too, and is slower
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    add_compile_options(-fPIE)
  endif()
  # Control-flow protection: indirect jumps and returns reach only marked places. Each processor has its own option.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    add_compile_options(-mbranch-protection=standard)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i[3-6]86)$")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(-pie -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
