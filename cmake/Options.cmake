# tavro_options: how this project's own code is compiled and linked.
add_library(tavro_options INTERFACE)
target_compile_features(tavro_options INTERFACE cxx_std_20)
target_include_directories(tavro_options INTERFACE ${PROJECT_SOURCE_DIR}/src)

target_compile_options(tavro_options INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wcast-align -Wformat=2 -Werror
    # Messages name a unit by its path below the source root. No path of the build machine stays in the program.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/src/=
    -fstack-protector-strong>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(tavro_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()
target_compile_definitions(tavro_options INTERFACE _GLIBCXX_ASSERTIONS)

if(TAVRO_SANITIZERS)
  add_compile_options(-fsanitize=${TAVRO_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TAVRO_SANITIZERS})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(tavro_options INTERFACE _FORTIFY_SOURCE=2)
endif()

if(WIN32)
  target_compile_definitions(tavro_options INTERFACE UNICODE _UNICODE _WIN32_WINNT=0x0601)
  # The program is one file: the compiler's runtime libraries are linked statically. What it does not use is left out, and
  # larger functions are not inlined, so that it stays under 1.6 MB.
  target_compile_options(tavro_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-ffunction-sections -fdata-sections -fno-inline-functions --param=max-inline-insns-single=20>)
  target_link_options(tavro_options INTERFACE
    -static -fstack-protector-strong -Wl,--gc-sections,--dynamicbase,--high-entropy-va,--nxcompat)
else()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  # Control-flow protection: indirect jumps and returns reach only marked places. Each processor has its own option.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(control_flow_protection -mbranch-protection=standard)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i[3-6]86)$")
    set(control_flow_protection -fcf-protection)
  endif()
  target_compile_options(tavro_options INTERFACE -fPIE ${control_flow_protection})
  target_link_options(tavro_options INTERFACE -pie -Wl,-z,relro,-z,now,-z,noexecstack)
endif()
