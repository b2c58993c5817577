#include "handles.h"

#include <algorithm>
#include <vector>

namespace zeptick::python {

namespace {
// Owned handles alive now; touched only with the GIL held.
std::vector<std::weak_ptr<TaggerHandle>>& ownedHandles() {
  static auto* handles = new std::vector<std::weak_ptr<TaggerHandle>>();
  return *handles;
}
}  // namespace

TaggerHandle::~TaggerHandle() {
  if (!owned_ || tagger_ == nullptr) return;
  // Python drops the last reference only after every measurement made on the tagger, since
  // each of them holds this handle.
  ZeptickBase* tagger = std::exchange(tagger_, nullptr);
  if (PyGILState_Check()) {
    py::gil_scoped_release release;
    freeZeptick(tagger);
  } else {
    freeZeptick(tagger);
  }
}

bool TaggerHandle::close() {
  if (isClosed()) return false;
  if (!owned_) throw std::runtime_error("This tagger belongs to a SynchronizedMeasurements group.");
  if (!dependents_.empty()) {
    throw std::runtime_error(
        "The tagger still has " + std::to_string(dependents_.size()) +
        " measurement(s) or group(s); close or delete them before freeing it.");
  }
  calls_.checkIdle("The tagger");
  ZeptickBase* tagger = std::exchange(tagger_, nullptr);
  py::gil_scoped_release release;
  return freeZeptick(tagger);
}

bool TaggerHandle::closeAll() {
  if (isClosed()) return false;
  calls_.checkIdle("The tagger");
  // Closing removes each from the set, so walk copies: measurements first, then groups.
  for (bool groups : {false, true}) {
    for (Dependent* dependent : std::set<Dependent*>(dependents_)) {
      if (dependent->isGroup() == groups) dependent->close();
    }
  }
  return close();
}

void registerOwnedHandle(const std::shared_ptr<TaggerHandle>& handle) {
  auto& handles = ownedHandles();
  std::erase_if(handles, [](const auto& weak) { return weak.expired(); });
  handles.push_back(handle);
}

void forgetAllHandles() {
  for (auto& weak : ownedHandles()) {
    if (auto handle = weak.lock()) handle->forget();
  }
  ownedHandles().clear();
}

}  // namespace zeptick::python

namespace zeptick::python {

MeasurementHandle::~MeasurementHandle() {
  if (!measurement_) return;
  // Python drops the last reference with the GIL held; a worker inside this measurement may
  // be waiting for it.
  {
    py::gil_scoped_release release;
    measurement_.reset();
  }
  tagger_->removeDependent(this);
}

IteratorBase* MeasurementHandle::get() const {
  if (!measurement_) throw std::runtime_error("The measurement has been closed.");
  if (tagger_->isClosed()) {
    throw std::runtime_error("The tagger of this measurement has been freed.");
  }
  return measurement_.get();
}

void MeasurementHandle::close() {
  if (!measurement_) return;
  calls_.checkIdle("The measurement");
  {
    py::gil_scoped_release release;
    measurement_.reset();
  }
  tagger_->removeDependent(this);
}

}  // namespace zeptick::python

namespace zeptick::python {

void closeAllHandles() {
  // Closing may drop the last reference of another handle, so work on strong copies.
  std::vector<std::shared_ptr<TaggerHandle>> alive;
  for (auto& weak : ownedHandles()) {
    if (auto handle = weak.lock()) alive.push_back(std::move(handle));
  }
  for (auto& handle : alive) {
    try {
      handle->closeAll();
    } catch (const std::exception&) {
      // A thread still inside a call at exit: leave that tagger to the process's end.
    }
  }
}

}  // namespace zeptick::python
