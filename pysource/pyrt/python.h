// The one place that includes the C API, limited to what the stable ABI of CPython 3.12 offers.

#ifndef PYSOURCE_PYRT_PYTHON_H_
#define PYSOURCE_PYRT_PYTHON_H_

#ifndef Py_LIMITED_API
#define Py_LIMITED_API 0x030C0000
#endif
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <structmember.h>

#endif  // PYSOURCE_PYRT_PYTHON_H_
