// The Python module host_xpu._levels of a portable build: decides, once a process and for all its modules, which level
// is taken. A level is a folder of binaries compiled for one kind of processor (cmake/portable.cmake).
//
// This source and loader.cpp are all that runs before that: plain x86-64, and nothing of the device's or the
// framework's.
#include <Python.h>

#include <cstdlib>
#include <cstring>

namespace {

struct level {
  const char* name;
  bool offered;  // by the processor, and by the operating system, which has to keep the registers: GCC asks both
};

constexpr int count = 4;

// Taken unless another is asked for: the last that is offered.
void find_levels(level (&levels)[count]) {
  __builtin_cpu_init();
  const bool v4 = __builtin_cpu_supports("x86-64-v4") != 0;
  const bool bf16 = __builtin_cpu_supports("avx512vnni") != 0 && __builtin_cpu_supports("avx512vbmi") != 0 &&
                    __builtin_cpu_supports("avx512bf16") != 0;
  levels[0] = {"x86-64-v2", __builtin_cpu_supports("x86-64-v2") != 0};
  levels[1] = {"x86-64-v3", __builtin_cpu_supports("x86-64-v3") != 0};
  levels[2] = {"x86-64-v4", v4};
  levels[3] = {"x86-64-v4-bf16", v4 && bf16};
}

// (name, ...) of all levels, or of those that are offered; a new reference, null with an exception set.
PyObject* names_of(const level (&levels)[count], bool all) {
  Py_ssize_t size = 0;
  for (const level& l : levels) size += all || l.offered;
  PyObject* names = PyTuple_New(size);
  for (int i = count - 1; names != nullptr && i >= 0; --i) {
    if (!all && !levels[i].offered) continue;
    PyObject* name = PyUnicode_FromString(levels[i].name);
    if (name == nullptr) Py_CLEAR(names);
    if (name != nullptr) PyTuple_SET_ITEM(names, --size, name);
  }
  return names;
}

void refuse(const level (&levels)[count], const char* wanted) {
  PyObject *all = names_of(levels, true), *offered = names_of(levels, false);
  if (all != nullptr && offered != nullptr && wanted != nullptr) {
    PyErr_Format(PyExc_ImportError,
                 "CORVANE_ISA is '%s'; this build has the levels %R, of which this machine offers %R", wanted, all,
                 offered);
  } else if (all != nullptr) {
    PyErr_Format(PyExc_ImportError, "this machine's processor is older than all levels of this build, %R", all);
  }
  Py_XDECREF(all);
  Py_XDECREF(offered);
}

// The level's name, null with an exception set.
const char* take_level(const level (&levels)[count]) {
  const char* wanted = std::getenv("CORVANE_ISA");
  if (wanted != nullptr && *wanted == '\0') wanted = nullptr;
  for (int i = count - 1; i >= 0; --i) {
    if (levels[i].offered && (wanted == nullptr || std::strcmp(wanted, levels[i].name) == 0)) return levels[i].name;
  }
  refuse(levels, wanted);
  return nullptr;
}

PyModuleDef definition = {PyModuleDef_HEAD_INIT, "_levels", nullptr, -1, nullptr, nullptr, nullptr, nullptr, nullptr};

}  // namespace

PyMODINIT_FUNC PyInit__levels() {
  level levels[count];
  find_levels(levels);
  const char* taken = take_level(levels);
  if (taken == nullptr) return nullptr;
  PyObject* module = PyModule_Create(&definition);
  PyObject* offered = names_of(levels, false);
  const bool filled = module != nullptr && offered != nullptr &&
                      PyModule_AddStringConstant(module, "taken", taken) == 0 &&
                      PyObject_SetAttrString(module, "offered", offered) == 0;
  Py_XDECREF(offered);
  if (!filled) Py_CLEAR(module);
  return module;
}
