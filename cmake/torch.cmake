# The PyTorch of the chosen interpreter: torch_headers, torch_libraries, torch_python. Asked of the interpreter itself,
# so that a distribution's package and a wheel are found alike. Built and tested with 1.13, the oldest that will do.
if(NOT Python3_EXECUTABLE)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()
if(CMAKE_CROSSCOMPILING)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
else()
  find_package(Python3 REQUIRED COMPONENTS Interpreter Development.Module)
endif()

# Asked as things stand, and then past the build environment of a package installer, which hides the packages of the
# interpreter that it installs into.
foreach(environment "" "--unset=PYTHONPATH;--unset=PYTHONNOUSERSITE")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env ${environment} ${Python3_EXECUTABLE} -c "import torch, torch.utils.cpp_extension as e; \
print(torch.__version__, int(torch._C._GLIBCXX_USE_CXX11_ABI), '|'.join(e.include_paths()), '|'.join(e.library_paths()), \
sep=';')"
    OUTPUT_VARIABLE torch_facts ERROR_VARIABLE torch_error OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE torch_missing)
  if(NOT torch_missing)
    break()
  endif()
endforeach()
if(torch_missing)
  message(FATAL_ERROR "corvane needs PyTorch 1.13 or newer in ${Python3_EXECUTABLE}, which cannot import it.\n"
    "  Debian: apt-get install python3-torch libtorch-dev (scripts/setup.sh does it)\n"
    "  virtual environment: make it with --system-site-packages, or install PyTorch into it\n"
    "  another interpreter: -DPython3_EXECUTABLE=..., or the pip of that interpreter\n"
    "  building in an isolated interpreter (python -m build): --no-isolation\n${torch_error}")
endif()
list(GET torch_facts 0 torch_version)
list(GET torch_facts 1 torch_cxx11_abi)
list(GET torch_facts 2 torch_include_dirs)
list(GET torch_facts 3 torch_library_dirs)
string(REPLACE "|" ";" torch_include_dirs "${torch_include_dirs}")
string(REPLACE "|" ";" torch_library_dirs "${torch_library_dirs}")
string(REGEX MATCH "^[0-9]+\\.[0-9]+" torch_release "${torch_version}")
if(torch_release VERSION_LESS 1.13)
  message(FATAL_ERROR "corvane needs PyTorch 1.13 or newer; ${Python3_EXECUTABLE} has ${torch_version}")
endif()

add_library(torch_headers INTERFACE)
target_include_directories(torch_headers SYSTEM INTERFACE ${torch_include_dirs})
target_compile_definitions(torch_headers INTERFACE _GLIBCXX_USE_CXX11_ABI=${torch_cxx11_abi})


# What this PyTorch has, asked of its own folders: __has_include would also find the headers of a distribution's PyTorch
# in /usr/include.
function(define_if_torch_has header definition)
  foreach(folder ${torch_include_dirs})
    if(EXISTS ${folder}/${header})
      target_compile_definitions(torch_headers INTERFACE ${definition})
      return()
    endif()
  endforeach()
endfunction()
define_if_torch_has(ATen/core/NamedTensor.h CORVANE_TORCH_NAMES_DIMENSIONS)
define_if_torch_has(ATen/detail/AcceleratorHooksInterface.h CORVANE_TORCH_HAS_ACCELERATORS)

# Which library multiplies dense tiles (platform/xpu/tile_product.hpp). Older releases call a BLAS that packs the weight
# in each product and has no BFloat16: there it is oneDNN. Newer ones carry a oneDNN of their own, beside which a second
# one of another version takes over symbols of the first: there it is their own product.
if(torch_release VERSION_LESS 2.0)
  set(torch_product onednn)
else()
  set(torch_product framework)
endif()

if(CMAKE_CROSSCOMPILING)
  return()  # the headers of this machine's PyTorch will do, its libraries not
endif()
foreach(name torch torch_cpu c10 torch_python)
  find_library(${name}_library ${name} HINTS ${torch_library_dirs} REQUIRED)
endforeach()
add_library(torch_libraries INTERFACE)
target_link_libraries(torch_libraries INTERFACE ${torch_library} ${torch_cpu_library} ${c10_library})
add_library(torch_python INTERFACE)
target_include_directories(torch_python SYSTEM INTERFACE ${Python3_INCLUDE_DIRS})
target_link_libraries(torch_python INTERFACE ${torch_python_library})
