#pragma once

// NumPy results filled in place by the library's allocator callbacks: the callback allocates a
// buffer the library writes into, and that same buffer becomes the array's memory.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::python {

namespace py = pybind11;

/// One result buffer. The callbacks run without the GIL (they only allocate); finish() needs it.
template <class T>
class ArrayOut {
 public:
  /// For std::function<T*(size_t)>.
  std::function<T*(size_t)> oneD() {
    return [this](size_t n) { return allocate({n}); };
  }
  /// For std::function<T*(size_t, size_t)>.
  std::function<T*(size_t, size_t)> twoD() {
    return [this](size_t a, size_t b) { return allocate({a, b}); };
  }
  /// For std::function<T*(size_t, size_t, size_t)>.
  std::function<T*(size_t, size_t, size_t)> threeD() {
    return [this](size_t a, size_t b, size_t c) { return allocate({a, b, c}); };
  }

  /// The array over the buffer, which it then owns; an empty 1-D array if nothing was asked.
  py::array finish() {
    if (!buffer_) allocate({0});
    T* owned = buffer_.release();
    py::capsule free_when_done(owned, [](void* p) { delete[] static_cast<T*>(p); });
    return py::array_t<T>(shape_, owned, free_when_done);
  }

 private:
  T* allocate(std::vector<size_t> shape) {
    size_t total = 1;
    for (size_t extent : shape) total *= extent;
    // Not zeroed: the library writes every element.
    buffer_ = std::make_unique_for_overwrite<T[]>(total);
    shape_ = std::move(shape);
    return buffer_.get();
  }

  std::unique_ptr<T[]> buffer_;
  std::vector<size_t> shape_;
};

/// Runs `call(out)`, which lets the GIL go around the library call, and returns the filled
/// array.
template <class T, class Call>
py::array fetch(Call&& call) {
  ArrayOut<T> out;
  call(out);
  return out.finish();
}

/// The structured dtype of Tag: type, missed_events, channel, time (16 bytes, the reserved byte
/// left as padding).
py::dtype tagDtype();

/// A structured array over `count` tags at `tags`. With `base` the array is a view that keeps
/// `base` alive; without, the tags are copied into a new array.
py::array tagArray(const Tag* tags, size_t count, py::handle base = py::handle());

}  // namespace zeptick::python
