# A build for any x86-64 processor: corvane_levels/<level>/ has all that is compiled, once a level, and where Python
# looks for the modules there are loaders, which take the best level that processor and operating system offer
# (platform/levels). What is loaded before that choice shares no object with a level and runs on the first x86-64
# processors.
if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  message(FATAL_ERROR "CORVANE_ARCH=portable is for x86-64; for ${CMAKE_SYSTEM_PROCESSOR} say what -march takes")
endif()

# As platform/levels/levels.cpp has them: those of the psABI, and one more for what byte look-ups (VBMI), integer dot
# products (VNNI) and BFloat16 gain.
set(levels x86-64-v2 x86-64-v3 x86-64-v4 x86-64-v4-bf16)
set(options_x86-64-v4-bf16 -march=x86-64-v4 -mavx512vnni -mavx512vbmi -mavx512bf16)

function(compile_for_the_first_processors target)
  target_include_directories(${target} SYSTEM PRIVATE ${Python3_INCLUDE_DIRS})
  target_compile_options(${target} PRIVATE -march=x86-64 -Wall -Wextra)
  target_link_libraries(${target} PRIVATE ${CMAKE_DL_LIBS})
  make_python_module(${target})
endfunction()

foreach(level ${levels})
  if(NOT options_${level})
    set(options_${level} -march=${level})
  endif()
  add_level(_${level} corvane_levels/${level} ${options_${level}})
endforeach()

add_library(corvane_levels MODULE platform/levels/levels.cpp)
compile_for_the_first_processors(corvane_levels)
set_target_properties(corvane_levels PROPERTIES OUTPUT_NAME _levels LIBRARY_OUTPUT_DIRECTORY ${python_dir}/host_xpu)

# add_loader(<module> <name> <folder>): the module in front of those of that name in the levels.
function(add_loader module name folder)
  add_library(${module} MODULE platform/levels/loader.cpp)
  compile_for_the_first_processors(${module})
  file(RELATIVE_PATH to_levels ${python_dir}/${folder} ${python_dir}/corvane_levels)
  target_compile_definitions(${module} PRIVATE CORVANE_MODULE=${name} CORVANE_LEVELS="${to_levels}")
  set_target_properties(${module} PROPERTIES OUTPUT_NAME ${name} LIBRARY_OUTPUT_DIRECTORY ${python_dir}/${folder})
  add_dependencies(${module} corvane_levels)
  foreach(level ${levels})
    add_dependencies(${module} ${module}_${level})
  endforeach()
endfunction()
add_loader(corvane corvane .)
add_loader(host_xpu _device host_xpu)
add_loader(bench_memory bench_memory .)

install(TARGETS corvane LIBRARY DESTINATION .)
install(TARGETS host_xpu corvane_levels LIBRARY DESTINATION host_xpu)
