// The Python module CORVANE_MODULE of a portable build: opens the module of that name in the level that the process
// takes and becomes it. The level's binaries are mapped only then, so nothing of them can run before the choice.
#include <Python.h>
#include <dlfcn.h>

#include <string>

#define CORVANE_TEXT_OF(name) #name
#define CORVANE_TEXT(name) CORVANE_TEXT_OF(name)
#define CORVANE_JOIN_OF(a, b) a##b
#define CORVANE_JOIN(a, b) CORVANE_JOIN_OF(a, b)

namespace {

using init_function = PyObject* (*)();

// The path of this module's counterpart in the level; empty with an exception set. Both have the same file name.
std::string counterpart() {
  static const char here = 0;
  Dl_info self;
  if (dladdr(&here, &self) == 0) {
    PyErr_SetString(PyExc_ImportError, CORVANE_TEXT(CORVANE_MODULE) ": cannot find its own file");
    return {};
  }
  PyObject* levels = PyImport_ImportModule("host_xpu._levels");
  PyObject* taken = levels == nullptr ? nullptr : PyObject_GetAttrString(levels, "taken");
  const char* name = taken == nullptr ? nullptr : PyUnicode_AsUTF8(taken);
  std::string path;
  if (name != nullptr) {
    path = self.dli_fname;
    const std::size_t file = path.rfind('/') + 1;
    path.insert(file, std::string(CORVANE_LEVELS "/") + name + '/');
  }
  Py_XDECREF(taken);
  Py_XDECREF(levels);
  return path;
}

}  // namespace

PyMODINIT_FUNC CORVANE_JOIN(PyInit_, CORVANE_MODULE)() {
  const std::string path = counterpart();
  if (path.empty()) return nullptr;
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* init = module == nullptr ? nullptr : dlsym(module, "PyInit_" CORVANE_TEXT(CORVANE_MODULE));
  if (init == nullptr) {
    PyErr_SetString(PyExc_ImportError, dlerror());
    return nullptr;
  }
  return reinterpret_cast<init_function>(init)();
}
