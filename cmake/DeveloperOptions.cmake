# Every developer switch of the build, in one place.
#
#   L2VFIB_TESTS      unit and integration tests (GoogleTest)         ON
#   L2VFIB_EXAMPLES   the example daemons                             ON
#   L2VFIB_TOOLS      host tools: the message decoder                 ON
#                     (OFF when cross-compiling)
#   L2VFIB_SANITIZE   AddressSanitizer + UndefinedBehaviorSanitizer   OFF
#   L2VFIB_FUZZ       libFuzzer targets (needs clang)                 OFF
#   L2VFIB_GTEST_SOURCE  build GoogleTest from this source tree
#                        instead of the installed one (cross builds)  ""
option(L2VFIB_TESTS "Build the tests" ON)
option(L2VFIB_EXAMPLES "Build the examples" ON)
if(CMAKE_CROSSCOMPILING)
  option(L2VFIB_TOOLS "Build the host tools" OFF)
else()
  option(L2VFIB_TOOLS "Build the host tools" ON)
endif()
option(L2VFIB_SANITIZE "Build everything with ASan and UBSan" OFF)
option(L2VFIB_FUZZ "Build the libFuzzer targets (clang)" OFF)
set(L2VFIB_GTEST_SOURCE "" CACHE PATH "GoogleTest source tree to build from")

if(L2VFIB_SANITIZE)
  # Alignment checks included: messages start at any byte of the batch area.
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(L2VFIB_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "L2VFIB_FUZZ needs clang (CXX=clang++ CC=clang)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined
                      -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
