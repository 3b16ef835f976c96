# Every developer switch of the build, in one place.
#
#   L2VFIB_TESTS      unit and integration tests (GoogleTest)         ON
#   L2VFIB_EXAMPLES   the example daemons                             ON
#   L2VFIB_TOOLS      host tools: the message decoder                 ON
#                     (OFF when cross-compiling)
#   L2VFIB_SANITIZE   AddressSanitizer + UndefinedBehaviorSanitizer   OFF
#   L2VFIB_FUZZ       libFuzzer targets (needs clang)                 OFF
#   L2VFIB_BENCH      benchmarks (Google Benchmark, libmnl); never
#                     in cross builds                                 OFF
#   L2VFIB_WERROR     warnings are errors (developer builds: CI and
#                     make test turn it on; a user's build never)     OFF
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
option(L2VFIB_BENCH "Build the benchmarks" OFF)
if(CMAKE_CROSSCOMPILING)
  set(L2VFIB_BENCH OFF)
endif()
set(L2VFIB_GTEST_SOURCE "" CACHE PATH "GoogleTest source tree to build from")
option(L2VFIB_WERROR "Treat warnings as errors (developer builds)" OFF)

# Targets name -Werror beside their warnings, as developers build them.
# Called once the whole tree is defined: in a user's build (L2VFIB_WERROR
# OFF) it takes -Werror off every target under dir, so a compiler that warns
# where ours did not (a newer one, another optimisation level) still builds.
# In a developer build it keeps -Werror but not for GCC 12's -Wrestrict,
# which warns inside std::string at -O2 and above where nothing overlaps.
function(l2vfib_apply_werror dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY" OR type STREQUAL "UTILITY")
      continue()
    endif()
    get_target_property(options ${target} COMPILE_OPTIONS)
    if(NOT options OR NOT "-Werror" IN_LIST options)
      continue()
    endif()
    if(NOT L2VFIB_WERROR)
      list(REMOVE_ITEM options -Werror)
    elseif(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12
           AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
      list(APPEND options $<$<COMPILE_LANGUAGE:CXX>:-Wno-error=restrict>)
    endif()
    set_property(TARGET ${target} PROPERTY COMPILE_OPTIONS ${options})
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(subdir IN LISTS subdirs)
    l2vfib_apply_werror(${subdir})
  endforeach()
endfunction()

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
