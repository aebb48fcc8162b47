# Warnings, speed and sanitizers, shared by every target through verdo_options.

add_library(verdo_options INTERFACE)
target_include_directories(verdo_options INTERFACE ${CMAKE_SOURCE_DIR} ${VERDO_GENERATED_DIR})
target_compile_options(verdo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual
  -fstack-protector-strong)
if(CMAKE_UNITY_BUILD)
  # GCC warns of headers, and takes each source that is compiled with others for one.
  target_compile_options(verdo_options INTERFACE
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
endif()
foreach(language CXX OBJCXX)
  target_compile_options(verdo_options INTERFACE
    $<$<COMPILE_LANG_AND_ID:${language},Clang,AppleClang>:-Wthread-safety>)
endforeach()

if(VERDO_SANITIZE STREQUAL "address")
  set(flags -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(VERDO_SANITIZE STREQUAL "thread")
  set(flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(VERDO_SANITIZE STREQUAL "fuzzer")
  set(flags -fsanitize=fuzzer-no-link,address,undefined,float-cast-overflow -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  # What no sanitizer sees: places beyond the end of a view or within a container's room.
  target_compile_definitions(verdo_options INTERFACE _GLIBCXX_ASSERTIONS)
elseif(VERDO_SANITIZE)
  message(FATAL_ERROR "VERDO_SANITIZE takes address, thread or fuzzer, not '${VERDO_SANITIZE}'")
endif()
# Sources in Objective-C++ are, on Linux, another compiler's.
target_compile_options(verdo_options INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${flags}>")
target_link_options(verdo_options INTERFACE ${flags})

find_program(CCACHE ccache)
if(CCACHE)
  # What ccache wants in order to cache compilations that use a precompiled header.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
endif()
find_program(MOLD mold)
if(MOLD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_link_options(-fuse-ld=mold)
endif()
