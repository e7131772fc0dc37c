// NumPy arrays <-> zel containers for the bindings of tessel3d._native.
//
// A node-major NumPy array (n, 3) in C order holds exactly what a 3 x n column-major
// zel matrix holds, so an array becomes a matrix over the array's own memory
// (zel::dense2D::wrap): its first dimension gives the columns, its second the rows and
// its first stride the leading dimension (a column slice such as a[:, :4] of an (m, 8)
// array is a 4-row view with ld 8). The Python layer converts other dtypes and layouts
// before calling here; these helpers only accept arrays that already fit and throw
// (ValueError) otherwise.
//
// Inputs are private copies. The library checks its arguments once and then reads them
// with the GIL released, so another Python thread (or NumPy, which writes arrays with
// the GIL released) could change an array between the check and the reads: a node ID
// made out of range after check_IDs would be read out of bounds, and coordinates that
// change while a tree is sorted by them break the sort. The binding therefore hands the
// library copies in memory of its own that no other code can reach (private_matrix,
// private_vector); the copy costs about one pass over the array, which the library
// makes anyway. Outputs the library writes in place are views of the caller's array
// (matrix_view with writable): the flips, which only move entries, and the fields and
// metrics of the interpolations, whose values are never used as indices.
//
// Results that the library grew into buffers of its own go back to NumPy without a
// copy: the array keeps the zel matrix alive through a capsule.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>

#include "zel/matrix.h"
#include "zel/tessel.h"

namespace t3py {

namespace py = pybind11;

template <class T>
bool has_dtype(const py::array& a) {
  // Equivalence, not identity: other libraries hand out float64 dtypes of their own.
  return py::isinstance<py::array_t<T, 0>>(a);
}

// Leading dimension of a 2-D array whose rows are contiguous, or 0 when it does not fit.
template <class T>
std::size_t leading_dimension(const py::array& a) {
  const auto cols = static_cast<std::size_t>(a.shape(0)), rows = static_cast<std::size_t>(a.shape(1));
  const auto item = static_cast<py::ssize_t>(sizeof(T));
  if (cols == 0) return rows;  // nothing stored: NumPy gives any strides
  if (rows > 1 && a.strides(1) != item) return 0;
  if (cols == 1) return rows;
  if (a.strides(0) < 0 || a.strides(0) % item != 0) return 0;
  const auto ld = static_cast<std::size_t>(a.strides(0) / item);
  return ld >= rows ? ld : 0;
}

// A zel matrix over the memory of `a` ((cols, rows) in NumPy terms). `a` must outlive it.
template <class T>
zel::dense2D<T> matrix_view(const py::array& a, const char* name, bool writable = false) {
  if (!has_dtype<T>(a) || a.ndim() != 2)
    throw std::invalid_argument(std::string(name) + ": a 2-D array of " +
                                py::str(py::dtype::of<T>()).cast<std::string>() + " is expected");
  if (writable && !a.writeable()) throw std::invalid_argument(std::string(name) + ": the array is read-only");
  const std::size_t ld = leading_dimension<T>(a);
  const auto cols = static_cast<std::size_t>(a.shape(0)), rows = static_cast<std::size_t>(a.shape(1));
  if (ld == 0 && rows != 0)
    throw std::invalid_argument(std::string(name) + ": the rows of the array are not contiguous");
  T* data = static_cast<T*>(const_cast<void*>(a.data()));
  zel::dense2D<T> view = zel::dense2D<T>::wrap(data, rows, cols, ld);
  if (view.rows() != rows || view.cols() != cols) throw std::bad_alloc();
  return view;
}

[[noreturn]] inline void no_memory_for_copy(const char* name) {
  PyErr_Format(PyExc_MemoryError, "%s: out of memory for the private copy of the array", name);
  throw py::error_already_set();
}

// A copy of the array in memory of the library's own (see the file comment); None gives
// the empty matrix. The GIL is released while the entries are copied.
template <class T>
zel::dense2D<T> private_matrix(const py::object& object, const char* name) {
  zel::dense2D<T> copy;
  if (object.is_none()) return copy;
  const zel::dense2D<T> view = matrix_view<T>(py::reinterpret_borrow<py::array>(object), name);
  bool copied;
  {
    py::gil_scoped_release release;
    copied = copy.copy(view);
  }
  if (!copied) no_memory_for_copy(name);
  return copy;
}

template <class T>
zel::dense1D<T, 8> vector_view(const py::array& a, const char* name, bool writable = false) {
  if (!has_dtype<T>(a) || a.ndim() != 1)
    throw std::invalid_argument(std::string(name) + ": a 1-D array of " +
                                py::str(py::dtype::of<T>()).cast<std::string>() + " is expected");
  if (writable && !a.writeable()) throw std::invalid_argument(std::string(name) + ": the array is read-only");
  const auto n = static_cast<std::size_t>(a.shape(0));
  if (n > 1 && a.strides(0) != static_cast<py::ssize_t>(sizeof(T)))
    throw std::invalid_argument(std::string(name) + ": the array is not contiguous");
  T* data = static_cast<T*>(const_cast<void*>(a.data()));
  zel::dense1D<T, 8> view = zel::dense1D<T, 8>::wrap(n == 0 ? nullptr : data, n);
  if (view.size() != n) throw std::bad_alloc();
  return view;
}

template <class T>
zel::dense1D<T, 8> private_vector(const py::object& object, const char* name) {
  zel::dense1D<T, 8> copy;
  if (object.is_none()) return copy;
  const zel::dense1D<T, 8> view = vector_view<T>(py::reinterpret_borrow<py::array>(object), name);
  bool copied;
  {
    py::gil_scoped_release release;
    copied = copy.copy(view);
  }
  if (!copied) no_memory_for_copy(name);
  return copy;
}

inline zel::vector_fixed<double, 3> point3(const py::object& object) {
  const auto values = py::cast<py::array_t<double, py::array::c_style | py::array::forcecast>>(object);
  if (values.ndim() != 1 || values.shape(0) != 3) throw std::invalid_argument("a vector of 3 numbers is expected");
  return zel::vector_fixed<double, 3>(values.at(0), values.at(1), values.at(2));
}

// A NumPy array (cols, rows) holding the matrix's entries. A contiguous matrix is handed
// over (the capsule keeps its buffer alive); one with ld > rows is copied into a new
// C-ordered array. Only matrices of the binding's own come here, never a view of a
// caller's array.
template <class T>
py::array to_numpy(zel::dense2D<T>& m) {
  const std::size_t rows = m.rows(), cols = m.cols();
  if (rows * cols == 0) return py::array_t<T>({cols, rows});
  if (m.ld() == rows) {
    auto* keep = new zel::dense2D<T>();
    keep->swap(m);
    py::capsule owner(keep, [](void* p) { delete static_cast<zel::dense2D<T>*>(p); });
    return py::array_t<T>({cols, rows}, {rows * sizeof(T), sizeof(T)}, keep->data(), owner);
  }
  py::array_t<T> out({cols, rows});
  T* to = out.mutable_data();
  const T* from = m.data();
  for (std::size_t j = 0; j < cols; ++j) std::copy(from + j * m.ld(), from + j * m.ld() + rows, to + j * rows);
  return out;
}

template <class T>
py::array to_numpy(zel::dense1D<T, 8>& v) {
  const std::size_t n = v.size();
  if (n == 0) return py::array_t<T>(0);
  auto* keep = new zel::dense1D<T, 8>();
  keep->swap(v);
  py::capsule owner(keep, [](void* p) { delete static_cast<zel::dense1D<T, 8>*>(p); });
  return py::array_t<T>({n}, {sizeof(T)}, keep->data(), owner);
}

// The node detector as the Python class tessel3d.NodeDetector holds it. A call copies the
// detector (a shallow, reference-counted copy) before releasing the GIL, so that another
// thread re-initialising the Python object cannot free the tree under it.
struct detector_holder {
  zel::tessel::node_detector detector;
  std::size_t nb_nodes = 0;
};

// The library indexes its tables by the type: a value outside the enumeration is refused.
inline zel::element_type element_type_of(int type) {
  if (type < zel::NONE || type > zel::H27) throw std::invalid_argument("type: not an element type");
  return static_cast<zel::element_type>(type);
}

}  // namespace t3py
