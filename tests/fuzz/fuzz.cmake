# libFuzzer targets, one executable per tests/fuzz/fuzz_*.cpp. Built only by clang with
# -DFTPS_FUZZ=ON (CC=clang CXX=clang++, a build directory of its own): the daemon's libraries are
# then instrumented for coverage, ASan and UBSan, and each target links the fuzzer's driver and the
# fixtures of tests/support.
# tests/fuzz/run.sh builds and runs them; "make fuzz" calls it.
option(FTPS_FUZZ "build the libFuzzer targets (clang only)" OFF)

if(FTPS_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(FTPS_FUZZ_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g)
  foreach(lib ftps_platform ftps_app ftpd_core)
    target_compile_options(${lib} PRIVATE -fsanitize=fuzzer-no-link ${FTPS_FUZZ_FLAGS})
  endforeach()

  file(GLOB FTPS_FUZZ_SRC CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/fuzz_*.cpp)
  add_custom_target(fuzz_targets)
  foreach(src ${FTPS_FUZZ_SRC})
    get_filename_component(name ${src} NAME_WE)
    add_executable(${name} ${src} ${FTPS_UNIT_SUPPORT})
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
    target_compile_options(${name} PRIVATE ${FTPS_WARNINGS} -fno-exceptions -fsanitize=fuzzer ${FTPS_FUZZ_FLAGS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_libraries(${name} PRIVATE ftpd_core ftps_app ftps_platform)
    add_dependencies(fuzz_targets ${name})
  endforeach()
elseif(FTPS_FUZZ)
  message(WARNING "FTPS_FUZZ needs clang (CC=clang CXX=clang++): the fuzz targets are not built")
endif()
