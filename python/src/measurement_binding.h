#pragma once

// Helpers shared by the bindings of the measurement classes.

#include <pybind11/stl.h>

#include <memory>
#include <type_traits>
#include <utility>

#include "arrays.h"
#include "handles.h"

namespace zeptick::python {

/// Constructs a T on `tagger` without the GIL (a constructor may wait for the workers) and
/// wraps it in its handle.
template <class T, class TaggerType = ZeptickBase, class... Args>
std::unique_ptr<Typed<T>> make(const std::shared_ptr<TaggerHandle>& tagger, Args... args) {
  auto use = tagger->use();
  auto* target = dynamic_cast<TaggerType*>(tagger->get());
  if (target == nullptr) throw py::type_error("This measurement needs a hardware tagger.");
  std::unique_ptr<T> measurement;
  {
    py::gil_scoped_release release;
    measurement = std::make_unique<T>(target, std::move(args)...);
  }
  return std::make_unique<Typed<T>>(tagger, std::move(measurement));
}

/// A Python class for measurement T, derived from IteratorBase.
template <class T>
using MeasurementClass = py::class_<Typed<T>, MeasurementHandle>;

/// Binds a member that fills a 1-D array through its callback:
/// `getData(std::function<E*(size_t)>)`. `Of` names the class bound when the member belongs to a
/// base.
template <class E, class Of = void, class T>
auto array1(void (T::*method)(std::function<E*(size_t)>)) {
  using Owner = std::conditional_t<std::is_void_v<Of>, T, Of>;
  return [method](Typed<Owner>& handle) {
    return fetch<E>([&](ArrayOut<E>& out) {
      onMeasurement<Owner>(handle, [&](Owner* m) { (m->*method)(out.oneD()); });
    });
  };
}

/// The same for a 2-D array.
template <class E, class Of = void, class T>
auto array2(void (T::*method)(std::function<E*(size_t, size_t)>)) {
  using Owner = std::conditional_t<std::is_void_v<Of>, T, Of>;
  return [method](Typed<Owner>& handle) {
    return fetch<E>([&](ArrayOut<E>& out) {
      onMeasurement<Owner>(handle, [&](Owner* m) { (m->*method)(out.twoD()); });
    });
  };
}

/// Binds a plain member of T, or of a base of T, that runs without the GIL, on class `Of`.
template <class Of = void, class T, class Result, class... Args>
auto method(Result (T::*member)(Args...)) {
  using Owner = std::conditional_t<std::is_void_v<Of>, T, Of>;
  return [member](Typed<Owner>& handle, Args... args) {
    return onMeasurement<Owner>(handle, [&](Owner* m) { return (m->*member)(args...); });
  };
}

}  // namespace zeptick::python
