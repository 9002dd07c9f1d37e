#!/usr/bin/env python3
"""Derives the Python package's compiled calling module from the public headers.

Writes OUTDIR/_native.c: one CPython function per exported function of include/kvlcv.h and
include/kvlcore.h (the same one-line declarations the entry layer and the signature table are
read from). Each takes the C function's arguments positionally, converts them with range checks,
releases the GIL for the call and returns what the C function returns. The C functions are
looked up with dlsym in the libraries the package has loaded (bind()), so the module links
neither library and follows the package's choice of library file.

Argument forms: a pointer is an int address or None; an integer or enumeration an int (checked
against the C type's range); Kvl32f and Kvl64f any real number; KvliSize, KvliPoint,
KvliPoint32f and KvliRect a tuple of their fields in declaration order or any object with the
fields as attributes (such as the package's ctypes structures).
"""
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from gen_abi import write_if_changed  # noqa: E402
from gen_py import declarations  # noqa: E402

# C scalar type -> (converter, C type of the local, range) for integers; reals and structures
# have their own converters.
INTS = {
    "int": ("int", "INT_MIN", "INT_MAX"), "KvlStatus": ("int", "INT_MIN", "INT_MAX"),
    "Kvl8u": ("Kvl8u", "0", "255"), "Kvl8s": ("Kvl8s", "-128", "127"),
    "Kvl16u": ("Kvl16u", "0", "65535"), "Kvl16s": ("Kvl16s", "-32768", "32767"),
    "Kvl32s": ("Kvl32s", "INT32_MIN", "INT32_MAX"), "Kvl32u": ("Kvl32u", "0", "UINT32_MAX"),
    "KvliBorderType": ("KvliBorderType", "INT_MIN", "INT_MAX"),
    "KvliMaskSize": ("KvliMaskSize", "INT_MIN", "INT_MAX"),
    "KvlDataType": ("KvlDataType", "INT_MIN", "INT_MAX"),
    "KvliDifferentialKernel": ("KvliDifferentialKernel", "INT_MIN", "INT_MAX"),
    "KvlNormType": ("KvlNormType", "INT_MIN", "INT_MAX"),
}
REALS = {"Kvl32f", "Kvl64f"}
# Structures passed by value: their fields in declaration order and whether they are reals. The
# wrapper reads the fields into a double array and builds the structure from it.
STRUCTS = {"KvliSize": (("width", "height"), False), "KvliPoint": (("x", "y"), False),
           "KvliPoint32f": (("x", "y"), True), "KvliRect": (("x", "y", "width", "height"), False)}

PRELUDE = r'''/* Generated from kvlcv.h and kvlcore.h by tools/gen_native.py. Do not edit. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <dlfcn.h>
#include <limits.h>
#include <stdint.h>

#include "kvlcore.h"
#include "kvlcv.h"

/* Every converter returns 0 and sets a Python exception naming the function, the argument's
 * position and name on a bad argument. */
static int bad_arg(const char* fn, int i, const char* name, const char* what, PyObject* o) {
  /* A conversion's own TypeError, OverflowError or missing attribute is replaced by one that
   * names the argument; any other error raised by the object passes through. */
  if (PyErr_Occurred() && !PyErr_ExceptionMatches(PyExc_TypeError) &&
      !PyErr_ExceptionMatches(PyExc_OverflowError) &&
      !PyErr_ExceptionMatches(PyExc_AttributeError))
    return 0;
  PyObject* type = PyErr_Occurred() && PyErr_ExceptionMatches(PyExc_OverflowError)
                       ? PyExc_OverflowError : PyExc_TypeError;
  PyErr_Clear();
  PyErr_Format(type, "%s: argument %d (%s): expected %s, got %R", fn, i + 1, name, what, o);
  return 0;
}

static int to_ptr(PyObject* o, void** out, const char* fn, int i, const char* name) {
  if (o == Py_None) {
    *out = NULL;
    return 1;
  }
  if (PyLong_Check(o) || PyIndex_Check(o)) {
    PyObject* v = PyNumber_Index(o);
    if (v) {
      *out = PyLong_AsVoidPtr(v);
      Py_DECREF(v);
      if (!PyErr_Occurred()) return 1;
    }
  }
  return bad_arg(fn, i, name, "an int address or None", o);
}

static int to_long(PyObject* o, long long lo, long long hi, long long* out, const char* fn, int i,
                   const char* name, const char* type) {
  int overflow = 0;
  long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
  if (v == -1 && PyErr_Occurred()) return bad_arg(fn, i, name, type, o);
  if (overflow || v < lo || v > hi) {
    PyErr_Format(PyExc_OverflowError, "%s: argument %d (%s): %R is out of the range of %s", fn,
                 i + 1, name, o, type);
    return 0;
  }
  *out = v;
  return 1;
}

static int to_real(PyObject* o, double* out, const char* fn, int i, const char* name) {
  double v = PyFloat_AsDouble(o);
  if (v == -1.0 && PyErr_Occurred()) return bad_arg(fn, i, name, "a real number", o);
  *out = v;
  return 1;
}

/* The n integer (or real) fields of a structure argument: a tuple of n, or attributes. */
static int fields(PyObject* o, int n, const char* const* names, int real, double* out,
                  const char* fn, int i, const char* name, const char* type) {
  if (PyTuple_Check(o) && PyTuple_GET_SIZE(o) != n) {
    PyErr_Format(PyExc_TypeError, "%s: argument %d (%s): a %s tuple has %d fields, got %zd", fn,
                 i + 1, name, type, n, PyTuple_GET_SIZE(o));
    return 0;
  }
  for (int k = 0; k < n; ++k) {
    PyObject* f = PyTuple_Check(o) ? (Py_INCREF(PyTuple_GET_ITEM(o, k)), PyTuple_GET_ITEM(o, k))
                                   : PyObject_GetAttrString(o, names[k]);
    if (!f) return bad_arg(fn, i, name, type, o);
    int ok;
    if (real) {
      ok = to_real(f, &out[k], fn, i, name);
    } else {
      long long v = 0;
      ok = to_long(f, INT_MIN, INT_MAX, &v, fn, i, name, "int");
      out[k] = (double)v;
    }
    Py_DECREF(f);
    if (!ok) return 0;
  }
  return 1;
}

static PyObject* bad_count(const char* fn, Py_ssize_t want, Py_ssize_t got) {
  PyErr_Format(PyExc_TypeError, "%s takes %zd arguments, got %zd", fn, want, got);
  return NULL;
}

static PyObject* unbound(const char* fn) {
  PyErr_Format(PyExc_RuntimeError, "%s: not bound to a library (call bind first)", fn);
  return NULL;
}

/* _image(a, writable): (address of the first pixel, row step) of a 2-D or 3-D array whose rows
 * go downwards without overlap and whose pixels within a row are back to back, or None for any
 * other object or layout (also an empty array, or a read-only one when writable is true): the
 * package then checks the layout itself and says what is wrong. */
static PyObject* image(PyObject* self, PyObject* const* args, Py_ssize_t n) {
  (void)self;
  if (n != 2) return bad_count("_image", 2, n);
  int writable = PyObject_IsTrue(args[1]);
  if (writable < 0) return NULL;
  Py_buffer v;
  if (PyObject_GetBuffer(args[0], &v, PyBUF_STRIDES | (writable ? PyBUF_WRITABLE : 0)) < 0) {
    PyErr_Clear();
    Py_RETURN_NONE;
  }
  const Py_ssize_t it = v.itemsize;
  int ok = (v.ndim == 2 || v.ndim == 3) && v.len > 0;
  Py_ssize_t row = 0, step = 0;
  if (ok) {
    const Py_ssize_t* sh = v.shape;
    const Py_ssize_t* st = v.strides;
    const Py_ssize_t ch = v.ndim == 3 ? sh[2] : 1;
    ok = v.ndim == 2 ? (st[1] == it || sh[1] == 1)
                     : (st[2] == it || sh[2] == 1) && (st[1] == it * ch || sh[1] == 1);
    row = it * sh[1] * ch;
    step = st[0];
    if (sh[0] <= 1)
      step = step > row ? step : row;
    else if (step < row)
      ok = 0;
  }
  void* buf = v.buf;
  PyBuffer_Release(&v);
  if (!ok) Py_RETURN_NONE;
  PyObject* t = PyTuple_New(2);
  if (!t) return NULL;
  PyObject* a = PyLong_FromVoidPtr(buf);
  PyObject* b = PyLong_FromSsize_t(step);
  if (!a || !b) {
    Py_XDECREF(a);
    Py_XDECREF(b);
    Py_DECREF(t);
    return NULL;
  }
  PyTuple_SET_ITEM(t, 0, a);
  PyTuple_SET_ITEM(t, 1, b);
  return t;
}

static PyObject* from_ptr(const void* p) {
  if (!p) Py_RETURN_NONE;
  return PyLong_FromVoidPtr((void*)p);
}
'''


def wrapper(ret, name, params):
    n = len(params)
    out = [f"static __typeof__({name})* p_{name};",
           f"static PyObject* w_{name}(PyObject* self, PyObject* const* args, Py_ssize_t n) {{",
           "  (void)self;",
           "  (void)args;",
           f"  if (n != {n}) return bad_count(\"{name}\", {n}, n);",
           f"  if (!p_{name}) return unbound(\"{name}\");"]
    call = []
    for i, (t, pname) in enumerate(params):
        base = t.replace("const ", "")
        if t.endswith("*"):
            out += [f"  void* a{i} = NULL;",
                    f"  if (!to_ptr(args[{i}], &a{i}, \"{name}\", {i}, \"{pname}\")) return NULL;"]
            call.append(f"({t})a{i}")
        elif base in INTS:
            ctype, lo, hi = INTS[base]
            out += [f"  long long a{i} = 0;",
                    f"  if (!to_long(args[{i}], {lo}, {hi}, &a{i}, \"{name}\", {i}, \"{pname}\", "
                    f"\"{base}\")) return NULL;"]
            call.append(f"({ctype})a{i}")
        elif base in REALS:
            out += [f"  double a{i} = 0;",
                    f"  if (!to_real(args[{i}], &a{i}, \"{name}\", {i}, \"{pname}\")) return NULL;"]
            call.append(f"({base})a{i}")
        elif base in STRUCTS:
            names, real = STRUCTS[base]
            k = len(names)
            quoted = ", ".join(f'"{f}"' for f in names)
            label = f"{base} ({', '.join(names)})"
            build = ", ".join(f"({'Kvl32f' if real else 'int'})f{i}[{j}]" for j in range(k))
            out += [f"  static const char* const f{i}names[] = {{{quoted}}};",
                    f"  double f{i}[{k}];",
                    f"  if (!fields(args[{i}], {k}, f{i}names, {int(real)}, f{i}, \"{name}\", {i}, "
                    f"\"{pname}\", \"{label}\")) return NULL;",
                    f"  {base} a{i} = {{{build}}};"]
            call.append(f"a{i}")
        else:
            sys.exit(f"gen_native: {name}: no conversion for parameter type {t!r}")
    args = ", ".join(call)
    r = ret.replace("const ", "")
    if ret == "void":
        out += ["  Py_BEGIN_ALLOW_THREADS", f"  p_{name}({args});", "  Py_END_ALLOW_THREADS",
                "  Py_RETURN_NONE;"]
    else:
        if ret.endswith("*"):
            conv = "from_ptr(r)"
        elif r in ("int", "KvlStatus"):
            conv = "PyLong_FromLong(r)"
        elif r == "Kvl64u":
            conv = "PyLong_FromUnsignedLongLong(r)"
        else:
            sys.exit(f"gen_native: {name}: no conversion for return type {ret!r}")
        out += [f"  {ret} r;", "  Py_BEGIN_ALLOW_THREADS", f"  r = p_{name}({args});",
                "  Py_END_ALLOW_THREADS", f"  return {conv};"]
    out.append("}")
    return out


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: gen_native.py include/kvlcv.h include/kvlcore.h OUTDIR")
    cv, core = declarations(sys.argv[1], sys.argv[2])
    lines = [PRELUDE]
    for ret, name, ps in cv + core:
        lines += wrapper(ret, name, ps)
        lines.append("")

    def table(name, decls):
        t = [f"static const struct cell {name}[] = {{"]
        t += [f"    {{\"{n}\", (void**)&p_{n}}}," for _, n, _ in decls]
        t += ["    {NULL, NULL}", "};"]
        return t

    lines += ["struct cell {", "  const char* name;", "  void** cell;", "};"]
    lines += table("cv_cells", cv) + table("core_cells", core)
    lines.append(r'''
/* bind(cv_handle, core_handle): looks every function up in the two dlopen handles; returns the
 * names not found. */
static PyObject* bind(PyObject* self, PyObject* args) {
  (void)self;
  PyObject *hcv, *hcore;
  if (!PyArg_ParseTuple(args, "OO:bind", &hcv, &hcore)) return NULL;
  void* handles[2] = {PyLong_AsVoidPtr(hcv), PyLong_AsVoidPtr(hcore)};
  if (PyErr_Occurred()) return NULL;
  PyObject* missing = PyList_New(0);
  if (!missing) return NULL;
  for (int h = 0; h < 2; ++h) {
    for (int k = 0; (h ? core_cells : cv_cells)[k].name; ++k) {
      const char* nm = (h ? core_cells : cv_cells)[k].name;
      void* f = dlsym(handles[h], nm);
      *(h ? core_cells : cv_cells)[k].cell = f;
      if (!f) {
        PyObject* s = PyUnicode_FromString(nm);
        if (!s || PyList_Append(missing, s) < 0) {
          Py_XDECREF(s);
          Py_DECREF(missing);
          return NULL;
        }
        Py_DECREF(s);
      }
    }
  }
  return missing;
}
''')
    lines.append("static PyMethodDef methods[] = {")
    lines.append('    {"bind", bind, METH_VARARGS, "bind(cv_handle, core_handle) -> names not '
                 'found"},')
    lines.append('    {"_image", (PyCFunction)(void (*)(void))image, METH_FASTCALL, '
                 '"_image(array, writable) -> (address, row step) or None"},')
    for ret, name, ps in cv + core:
        proto = f"{ret} {name}({', '.join(f'{t} {p}' for t, p in ps) or 'void'})"
        lines.append(f'    {{"{name}", (PyCFunction)(void (*)(void))w_{name}, METH_FASTCALL, '
                     f'"{proto}"}},')
    lines += ["    {NULL, NULL, 0, NULL}", "};", "",
              "static struct PyModuleDef module = {PyModuleDef_HEAD_INIT, \"_native\",",
              "    \"The library's functions, called with converted arguments and the GIL "
              "released.\", -1, methods, NULL, NULL, NULL, NULL};", "",
              "PyMODINIT_FUNC PyInit__native(void) { return PyModule_Create(&module); }", ""]
    out = Path(sys.argv[3])
    out.mkdir(parents=True, exist_ok=True)
    write_if_changed(out / "_native.c", "\n".join(lines))


if __name__ == "__main__":
    main()
