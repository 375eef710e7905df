// A CDestroyable in C, as a host may have one: instances without __dict__ and without weak
// references, with fields in C and a deallocation of their own.
//
// It is built as a heap type, or with -DSTATIC_TYPE as a static one. Only storage and life cycle are
// C; what a signal does with its connections is kept as plain as can be.

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <structmember.h>

// Odd sizes on purpose: a class derived from this one must not guess where its own fields begin.
typedef struct {
  PyObject ob_base;
  char destroyed;
  PyObject* names;        // tuple of signal names
  PyObject* connections;  // list of (name, callback, owner, id)
  PyObject* catchers;     // list of the ids of connections that others hold for this owner
  char tail[3];
} Destroyable;

static PyObject* class_connections;  // list of (class, name, callback, owner)
static long next_id = 1;
static Py_ssize_t live_count = 0;

static PyObject* Destroyable_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
  (void)args;
  (void)kwargs;
  Destroyable* self = (Destroyable*)type->tp_alloc(type, 0);
  if (self == NULL) return NULL;
  self->names = PyTuple_New(0);
  self->connections = PyList_New(0);
  self->catchers = PyList_New(0);
  live_count++;
  if (self->names == NULL || self->connections == NULL || self->catchers == NULL) {
    Py_DECREF(self);
    return NULL;
  }
  return (PyObject*)self;
}

static int Destroyable_init(Destroyable* self, PyObject* args, PyObject* kwargs) {
  if (kwargs != NULL && PyDict_GET_SIZE(kwargs) != 0) {
    PyErr_SetString(PyExc_TypeError, "no keyword arguments");
    return -1;
  }
  PyObject* names = NULL;
  if (!PyArg_ParseTuple(args, "|O", &names)) return -1;
  PyObject* copy = names == NULL ? PyTuple_New(0) : PySequence_Tuple(names);
  if (copy == NULL) return -1;
  self->destroyed = 0;
  Py_SETREF(self->names, copy);
  return 0;
}

static int Destroyable_traverse(Destroyable* self, visitproc visit, void* arg) {
#ifndef STATIC_TYPE
  Py_VISIT(Py_TYPE(self));
#endif
  Py_VISIT(self->names);
  Py_VISIT(self->connections);
  Py_VISIT(self->catchers);
  return 0;
}

static int Destroyable_clear(Destroyable* self) {
  Py_CLEAR(self->names);
  Py_CLEAR(self->connections);
  Py_CLEAR(self->catchers);
  return 0;
}

static void Destroyable_dealloc(Destroyable* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  Destroyable_clear(self);
  live_count--;
  type->tp_free(self);
#ifndef STATIC_TYPE
  Py_DECREF(type);
#endif
}

static PyObject* Destroyable_destroy_impl(PyObject* self, PyObject* unused) {
  (void)self;
  (void)unused;
  Py_RETURN_NONE;
}

// Drops from a list the tuples whose item `at` is `object`.
static int DropWhere(PyObject* list, Py_ssize_t at, PyObject* object) {
  for (Py_ssize_t i = PyList_GET_SIZE(list); i-- > 0;) {
    if (PyTuple_GET_ITEM(PyList_GET_ITEM(list, i), at) == object &&
        PyList_SetSlice(list, i, i + 1, NULL) < 0) {
      return -1;
    }
  }
  return 0;
}

static PyObject* Destroyable_destroy(Destroyable* self, PyObject* unused) {
  (void)unused;
  if (self->destroyed) Py_RETURN_NONE;
  self->destroyed = 1;
  PyObject* result = PyObject_CallMethod((PyObject*)self, "_destroy_impl", NULL);
  Py_XDECREF(result);
  PyObject* emitters = self->catchers;
  self->catchers = PyList_New(0);
  for (Py_ssize_t i = 0; emitters != NULL && i < PyList_GET_SIZE(emitters); i++) {
    Destroyable* emitter = (Destroyable*)PyList_GET_ITEM(emitters, i);
    if (emitter->connections != NULL) DropWhere(emitter->connections, 2, (PyObject*)self);
  }
  Py_XDECREF(emitters);
  DropWhere(class_connections, 3, (PyObject*)self);
  if (result == NULL || PyErr_Occurred()) return NULL;
  Py_RETURN_NONE;
}

static int CallWith(PyObject* callback, PyObject* args, Py_ssize_t from) {
  PyObject* rest = PyTuple_GetSlice(args, from, PyTuple_GET_SIZE(args));
  if (rest == NULL) return -1;
  PyObject* result = PyObject_CallObject(callback, rest);
  Py_DECREF(rest);
  Py_XDECREF(result);
  return result == NULL ? -1 : 0;
}

static PyObject* Destroyable_emit(Destroyable* self, PyObject* args) {
  if (PyTuple_GET_SIZE(args) == 0 || self->connections == NULL) {
    PyErr_SetString(PyExc_TypeError, "emit needs a name, and an object that is alive");
    return NULL;
  }
  PyObject* name = PyTuple_GET_ITEM(args, 0);
  const int declared = PySequence_Contains(self->names, name);
  if (declared == 0) PyErr_SetObject(PyExc_ValueError, name);
  if (declared != 1) return NULL;
  PyObject* mine = PyList_GetSlice(self->connections, 0, PY_SSIZE_T_MAX);
  PyObject* classwide = PyList_GetSlice(class_connections, 0, PY_SSIZE_T_MAX);
  int status = mine == NULL || classwide == NULL ? -1 : 0;
  for (Py_ssize_t i = 0; status == 0 && i < PyList_GET_SIZE(mine); i++) {
    PyObject* connection = PyList_GET_ITEM(mine, i);
    const int fits = PyObject_RichCompareBool(PyTuple_GET_ITEM(connection, 0), name, Py_EQ);
    status = fits == 1 ? CallWith(PyTuple_GET_ITEM(connection, 1), args, 1) : fits;
  }
  for (Py_ssize_t i = 0; status == 0 && i < PyList_GET_SIZE(classwide); i++) {
    PyObject* connection = PyList_GET_ITEM(classwide, i);
    if (!PyObject_TypeCheck(self, (PyTypeObject*)PyTuple_GET_ITEM(connection, 0))) continue;
    const int fits = PyObject_RichCompareBool(PyTuple_GET_ITEM(connection, 1), name, Py_EQ);
    status = fits == 1 ? CallWith(PyTuple_GET_ITEM(connection, 2), args, 1) : fits;
  }
  Py_XDECREF(mine);
  Py_XDECREF(classwide);
  if (status < 0) return NULL;
  Py_RETURN_NONE;
}

static PyObject* AddConnection(Destroyable* self, PyObject* name, PyObject* callback,
                               PyObject* owner) {
  PyObject* id = PyLong_FromLong(next_id++);
  if (id == NULL) return NULL;
  PyObject* connection = PyTuple_Pack(4, name, callback, owner, id);
  if (connection == NULL || PyList_Append(self->connections, connection) < 0) Py_CLEAR(id);
  Py_XDECREF(connection);
  return id;
}

static PyObject* Destroyable_connect(Destroyable* self, PyObject* args) {
  PyObject *name, *callback;
  if (!PyArg_ParseTuple(args, "OO", &name, &callback)) return NULL;
  return AddConnection(self, name, callback, Py_None);
}

static PyTypeObject* DestroyableType;

static PyObject* Destroyable_connect_while_alive(Destroyable* self, PyObject* args) {
  PyObject *name, *callback, *owner;
  if (!PyArg_ParseTuple(args, "OOO!", &name, &callback, DestroyableType, &owner)) return NULL;
  if (PyList_Append(((Destroyable*)owner)->catchers, (PyObject*)self) < 0) return NULL;
  return AddConnection(self, name, callback, owner);
}

static PyObject* Destroyable_class_connect_while_alive(PyObject* cls, PyObject* args) {
  PyObject *name, *callback, *owner;
  if (!PyArg_ParseTuple(args, "OOO!", &name, &callback, DestroyableType, &owner)) return NULL;
  PyObject* connection = PyTuple_Pack(4, cls, name, callback, owner);
  if (connection == NULL) return NULL;
  const int status = PyList_Append(class_connections, connection);
  Py_DECREF(connection);
  return status < 0 ? NULL : PyLong_FromLong(next_id++);
}

static PyObject* Destroyable_disconnect(Destroyable* self, PyObject* id) {
  if (self->connections == NULL) Py_RETURN_NONE;
  for (Py_ssize_t i = PyList_GET_SIZE(self->connections); i-- > 0;) {
    PyObject* connection = PyList_GET_ITEM(self->connections, i);
    const int same = PyObject_RichCompareBool(PyTuple_GET_ITEM(connection, 3), id, Py_EQ);
    if (same < 0) return NULL;
    if (same && PyList_SetSlice(self->connections, i, i + 1, NULL) < 0) return NULL;
  }
  Py_RETURN_NONE;
}

static PyMethodDef methods[] = {
    {"destroy", (PyCFunction)Destroyable_destroy, METH_NOARGS, NULL},
    {"_destroy_impl", Destroyable_destroy_impl, METH_NOARGS, NULL},
    {"emit", (PyCFunction)Destroyable_emit, METH_VARARGS, NULL},
    {"connect", (PyCFunction)Destroyable_connect, METH_VARARGS, NULL},
    {"connect_while_alive", (PyCFunction)Destroyable_connect_while_alive, METH_VARARGS, NULL},
    {"class_connect_while_alive", Destroyable_class_connect_while_alive,
     METH_VARARGS | METH_CLASS, NULL},
    {"disconnect", (PyCFunction)Destroyable_disconnect, METH_O, NULL},
    {NULL, NULL, 0, NULL}};

static PyMemberDef members[] = {
    {"_CDestroyable__fDestroyed", T_BOOL, offsetof(Destroyable, destroyed), READONLY, NULL},
    {NULL, 0, 0, 0, NULL}};

#ifdef STATIC_TYPE
static PyTypeObject static_type = {
    PyVarObject_HEAD_INIT(NULL, 0).tp_name = "compiled_base.CDestroyable",
    .tp_basicsize = sizeof(Destroyable),
    .tp_flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    .tp_new = Destroyable_new,
    .tp_init = (initproc)Destroyable_init,
    .tp_dealloc = (destructor)Destroyable_dealloc,
    .tp_traverse = (traverseproc)Destroyable_traverse,
    .tp_clear = (inquiry)Destroyable_clear,
    .tp_methods = methods,
    .tp_members = members,
};

static PyTypeObject* MakeType(PyObject* module) {
  (void)module;
  return PyType_Ready(&static_type) < 0 ? NULL : (PyTypeObject*)Py_NewRef(&static_type);
}
#else
static PyType_Slot slots[] = {{Py_tp_new, Destroyable_new},
                              {Py_tp_init, Destroyable_init},
                              {Py_tp_dealloc, Destroyable_dealloc},
                              {Py_tp_traverse, Destroyable_traverse},
                              {Py_tp_clear, Destroyable_clear},
                              {Py_tp_methods, methods},
                              {Py_tp_members, members},
                              {0, NULL}};
static PyType_Spec spec = {"compiled_base.CDestroyable", sizeof(Destroyable), 0,
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};

static PyTypeObject* MakeType(PyObject* module) {
  return (PyTypeObject*)PyType_FromModuleAndSpec(module, &spec, NULL);
}
#endif

static PyObject* LiveCount(PyObject* module, PyObject* unused) {
  (void)module;
  (void)unused;
  return PyLong_FromSsize_t(live_count);
}

static PyObject* Reset(PyObject* module, PyObject* unused) {
  (void)module;
  (void)unused;
  if (PyList_SetSlice(class_connections, 0, PY_SSIZE_T_MAX, NULL) < 0) return NULL;
  Py_RETURN_NONE;
}

static PyMethodDef functions[] = {{"live_count", LiveCount, METH_NOARGS, NULL},
                                  {"reset", Reset, METH_NOARGS, NULL},
                                  {NULL, NULL, 0, NULL}};

static PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                                 .m_name = "compiled_base",
                                 .m_size = -1,
                                 .m_methods = functions};

PyMODINIT_FUNC PyInit_compiled_base(void) {
  PyObject* module = PyModule_Create(&definition);
  if (module == NULL) return NULL;
  class_connections = PyList_New(0);
  DestroyableType = MakeType(module);
  if (class_connections == NULL || DestroyableType == NULL ||
      PyModule_AddObjectRef(module, "CDestroyable", (PyObject*)DestroyableType) < 0) {
    Py_DECREF(module);
    return NULL;
  }
  return module;
}
