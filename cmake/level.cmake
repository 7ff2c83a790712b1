include(CheckCXXSourceCompiles)

# add_level(<suffix> <folder> <compile options...>): all that is compiled for one kind of processor: the kernels, the
# device's library, the modules over both, and the C++ tests. <suffix> ends the names of the targets, <folder> is where
# the binaries go, seen from the folder of Python's packages. A build for one processor has one level, with no suffix
# and "." for its folder.
#
# Everything is compiled once a level, also what never touches a vector: its headers say what the kernels do (sizes,
# tuning.hpp), and one library must not be of two minds about that.
function(add_level suffix folder)
  set(options corvane_options${suffix})
  if(suffix)
    add_library(${options} INTERFACE)
    target_link_libraries(${options} INTERFACE corvane_options)
  endif()
  target_compile_options(${options} BEFORE INTERFACE ${ARGN})
  # GCC moves 64-byte vectors that are no registers by 16 bytes, and loads of 32 wait until all of them have arrived: one
  # row of q4_0 in float took 6 times as long on AVX2, q8_0 in half 6 times, q4_k 1.1 times.
  set(moves -mmove-max=256 -mstore-max=256)
  list(JOIN ARGN " " CMAKE_REQUIRED_FLAGS)
  list(JOIN moves " " flags)
  string(APPEND CMAKE_REQUIRED_FLAGS " ${flags}")
  check_cxx_source_compiles("
    #if !defined(__AVX2__) || defined(__AVX512F__) || defined(__clang__)
    #error
    #endif
    int main() {}" MOVES_BY_32${suffix})
  if(MOVES_BY_32${suffix})
    target_compile_options(${options} BEFORE INTERFACE ${moves})
  endif()

  add_library(corvane_platform${suffix} SHARED ${platform_sources})
  # gomp: the pool of others (other_pools.hpp, one_thread.hpp)
  target_link_libraries(corvane_platform${suffix} PUBLIC ${options}
    PRIVATE torch_libraries TBB::tbb ${DNNL_LIBRARY} gomp)
  set_target_properties(corvane_platform${suffix} PROPERTIES CXX_VISIBILITY_PRESET default)
  place(corvane_platform${suffix} corvane_platform ${folder} ${folder})

  add_library(corvane_kernels${suffix} OBJECT ${kernel_sources})
  target_link_libraries(corvane_kernels${suffix} PUBLIC ${options})

  # The package's folder is the level's own, unless the package itself is there.
  set(package_folder ${folder})
  if(folder STREQUAL .)
    set(package_folder host_xpu)
  endif()
  add_library(corvane${suffix} MODULE ${module_sources} $<TARGET_OBJECTS:corvane_kernels${suffix}>)
  add_library(host_xpu${suffix} MODULE ${host_xpu_sources})
  add_library(bench_memory${suffix} MODULE bench/memory.cpp)
  foreach(module corvane host_xpu bench_memory)
    target_link_libraries(${module}${suffix} PRIVATE pybind11::headers ${options} corvane_platform${suffix}
      torch_libraries torch_python)
    make_python_module(${module}${suffix})
  endforeach()
  place(corvane${suffix} corvane ${folder} ${folder})
  place(host_xpu${suffix} _device ${package_folder} ${folder})
  place(bench_memory${suffix} bench_memory ${folder} ${folder})

  if(CORVANE_TESTS)
    add_executable(corvane_tests${suffix} ${test_sources} $<TARGET_OBJECTS:corvane_kernels${suffix}>)
    target_link_libraries(corvane_tests${suffix} PRIVATE ${options} corvane_platform${suffix} torch_libraries
      GTest::gtest_main)
    add_test(NAME corvane_tests${suffix} COMMAND corvane_tests${suffix})
    # The tests of pool, queue and groups alone, for the thread sanitizer: the kernels take long to build and start no
    # thread.
    add_executable(platform_tests${suffix} EXCLUDE_FROM_ALL tests/cpp/sycl_test.cpp tests/cpp/check_order_test.cpp)
    target_link_libraries(platform_tests${suffix} PRIVATE ${options} corvane_platform${suffix} torch_libraries
      GTest::gtest_main)
  endif()

  install(TARGETS corvane${suffix} corvane_platform${suffix} LIBRARY DESTINATION ${folder})
  install(TARGETS host_xpu${suffix} LIBRARY DESTINATION ${package_folder})
endfunction()

# A binary that is called <name> and goes into <folder>, the device's library being in <platform_folder>. Installed,
# PyTorch is beside the packages or where the system finds it, and oneTBB in the environment's own lib folder, two above
# them, or where the system finds it.
function(place target name folder platform_folder)
  file(RELATIVE_PATH to_platform ${python_dir}/${folder} ${python_dir}/${platform_folder}/.)
  file(RELATIVE_PATH to_packages ${python_dir}/${folder} ${python_dir}/.)
  set(platform "$ORIGIN/${to_platform}")
  set(packages "$ORIGIN/${to_packages}")
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} LIBRARY_OUTPUT_DIRECTORY ${python_dir}/${folder}
    BUILD_RPATH "${platform}" INSTALL_RPATH "${platform};${packages}/torch/lib;${packages}/../..")
endfunction()

function(make_python_module target)
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".${Python3_SOABI}.so")
endfunction()
