# What another processor's compiler builds, for want of a PyTorch there: everything but the Python modules, as an archive,
# and the C++ tests over it, which need no more of PyTorch than its headers: of the archive's objects the linker takes
# those that the tests call.
sources_of(archived_sources platform/sycl platform/xpu)
add_library(corvane_archive STATIC ${archived_sources} ${kernel_sources})
target_compile_options(corvane_options BEFORE INTERFACE -march=${CORVANE_ARCH})
target_link_libraries(corvane_archive PUBLIC corvane_options TBB::tbb gomp)

enable_testing()
find_package(GTest REQUIRED)
add_executable(corvane_tests ${test_sources} tests/portable/framework.cpp)
target_link_libraries(corvane_tests PRIVATE corvane_archive GTest::gtest_main)
add_test(NAME corvane_tests COMMAND corvane_tests --gtest_brief=1)
