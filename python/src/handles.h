#pragma once

// Python-side ownership of taggers and measurements.
//
// A C++ measurement must be destroyed before its tagger, and nothing may touch a tagger after
// freeZeptick. Python collects objects in any order and lets threads race, so every Python
// object holds a handle: a measurement's handle keeps its tagger's handle alive, every call
// first checks that the objects behind the handle are still there and counts itself in, and a
// close while another thread is inside a call is refused. Handle state is read and written with
// the GIL held; the C++ calls run with the GIL released.

#include <pybind11/pybind11.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "zeptick/zeptick.h"

namespace zeptick::python {

namespace py = pybind11;

/// Something made on a tagger that must end before the tagger is freed: a measurement or a
/// SynchronizedMeasurements group.
class Dependent {
 public:
  virtual ~Dependent() = default;
  /// Ends it; a second close does nothing.
  virtual void close() = 0;
  /// Groups close after the measurements, which may belong to them.
  virtual bool isGroup() const { return false; }
};

/// Counts the calls in progress on one object. REQUIRES: GIL held for every member.
class UseCounter {
 public:
  /// Held for the duration of one call; taken and dropped with the GIL held.
  class Use {
   public:
    explicit Use(int& count) : count_(&count) { ++*count_; }
    Use(Use&& other) noexcept : count_(std::exchange(other.count_, nullptr)) {}
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    Use& operator=(Use&&) = delete;
    ~Use() {
      if (count_) --*count_;
    }

   private:
    int* count_;
  };

  Use use() { return Use(in_use_); }
  /// Throws RuntimeError if another thread is inside a call.
  void checkIdle(const char* what) const {
    if (in_use_ > 0) {
      throw std::runtime_error(std::string(what) + " is in use by another thread.");
    }
  }

 private:
  int in_use_ = 0;
};

/// A tagger as Python holds it: a hardware or replay tagger, or the stand-in tagger of a
/// SynchronizedMeasurements group (freed with its group, never by Python).
class TaggerHandle {
 public:
  /// Takes over one reference of `tagger` (dropped at close) when `owned`. `keep_alive` is
  /// held as long as this handle, `parent` is the handle of the tagger behind a stand-in.
  TaggerHandle(ZeptickBase* tagger, bool owned, std::shared_ptr<void> keep_alive = nullptr,
               std::shared_ptr<TaggerHandle> parent = nullptr)
      : tagger_(tagger),
        owned_(owned),
        keep_alive_(std::move(keep_alive)),
        parent_(std::move(parent)) {}
  virtual ~TaggerHandle();
  TaggerHandle(const TaggerHandle&) = delete;
  TaggerHandle& operator=(const TaggerHandle&) = delete;

  /// The live tagger; throws RuntimeError once it has been freed.
  ZeptickBase* get() const {
    if (isClosed()) throw std::runtime_error("The tagger has been freed.");
    return tagger_;
  }
  bool isClosed() const { return tagger_ == nullptr || (parent_ && parent_->isClosed()); }
  /// Counts a call in; throws RuntimeError once the tagger has been freed.
  UseCounter::Use use() {
    get();
    return root().calls_.use();
  }

  /// Drops this handle's reference, as freeZeptick does, and returns whether that destroyed
  /// the tagger. Throws RuntimeError while measurements made on it are alive or another thread
  /// is inside a call. Closing twice returns false.
  bool close();
  /// Closes every measurement made on the tagger, then the tagger: the end of a `with` block.
  bool closeAll();
  /// Marks the handle closed without freeing: freeAllZeptick already destroyed the tagger.
  void forget() { tagger_ = nullptr; }

  /// What lives on the tagger, kept on the handle that owns the real tagger.
  void addDependent(Dependent* dependent) { root().dependents_.insert(dependent); }
  void removeDependent(Dependent* dependent) { root().dependents_.erase(dependent); }

 private:
  TaggerHandle& root() { return parent_ ? parent_->root() : *this; }

  ZeptickBase* tagger_;
  bool owned_;
  std::shared_ptr<void> keep_alive_;
  std::shared_ptr<TaggerHandle> parent_;
  std::set<Dependent*> dependents_;
  UseCounter calls_;
};

class HardwareHandle : public TaggerHandle {
 public:
  explicit HardwareHandle(Zeptick* tagger) : TaggerHandle(tagger, true), hardware_(tagger) {}
  Zeptick* hardware() const {
    get();
    return hardware_;
  }

 private:
  Zeptick* hardware_;
};

class VirtualHandle : public TaggerHandle {
 public:
  explicit VirtualHandle(ZeptickVirtual* tagger) : TaggerHandle(tagger, true), replay_(tagger) {}
  ZeptickVirtual* replay() const {
    get();
    return replay_;
  }

 private:
  ZeptickVirtual* replay_;
};

/// Registers an owned handle, so that freeAllZeptick can mark every one closed.
void registerOwnedHandle(const std::shared_ptr<TaggerHandle>& handle);
/// Marks every registered handle closed.
void forgetAllHandles();
/// Closes every registered handle with its measurements, as at the end of a `with` block.
void closeAllHandles();

/// Any measurement as Python holds it, with the tagger handle it was made on.
class MeasurementHandle : public Dependent {
 public:
  MeasurementHandle(std::shared_ptr<TaggerHandle> tagger, std::unique_ptr<IteratorBase> measurement)
      : tagger_(std::move(tagger)), measurement_(std::move(measurement)) {
    tagger_->addDependent(this);
  }
  ~MeasurementHandle() override;
  MeasurementHandle(const MeasurementHandle&) = delete;
  MeasurementHandle& operator=(const MeasurementHandle&) = delete;

  /// The live measurement; throws RuntimeError once it or its tagger is gone.
  IteratorBase* get() const;
  /// Counts a call in; throws as get() does.
  UseCounter::Use use() {
    get();
    return calls_.use();
  }
  /// Stops and destroys the measurement; a second close does nothing. Throws RuntimeError if
  /// another thread is inside a call on it.
  void close() override;
  const std::shared_ptr<TaggerHandle>& tagger() const { return tagger_; }

 private:
  std::shared_ptr<TaggerHandle> tagger_;
  std::unique_ptr<IteratorBase> measurement_;
  UseCounter calls_;
};

/// A measurement handle of its own C++ type per measurement class, so that pybind11 keeps the
/// Python classes apart.
template <class T>
class Typed : public MeasurementHandle {
 public:
  using MeasurementHandle::MeasurementHandle;
};

/// Runs `call(target)` with the GIL released, counted in as a use of `handle`; `target` is
/// what `get` returns for the handle (the tagger, its hardware or replay interface, or the
/// measurement), looked up with the GIL held.
template <class Handle, class Get, class Call>
auto runReleased(Handle& handle, Get&& get, Call&& call) {
  auto use = handle.use();
  auto* target = get(handle);
  py::gil_scoped_release release;
  return call(target);
}

template <class Call>
auto onTagger(TaggerHandle& handle, Call&& call) {
  return runReleased(
      handle, [](TaggerHandle& h) { return h.get(); }, call);
}

template <class Call>
auto onHardware(HardwareHandle& handle, Call&& call) {
  return runReleased(
      handle, [](HardwareHandle& h) { return h.hardware(); }, call);
}

template <class Call>
auto onReplay(VirtualHandle& handle, Call&& call) {
  return runReleased(
      handle, [](VirtualHandle& h) { return h.replay(); }, call);
}

/// The measurement of type T behind `handle`.
template <class T, class Call>
auto onMeasurement(MeasurementHandle& handle, Call&& call) {
  return runReleased(
      handle, [](MeasurementHandle& h) { return static_cast<T*>(h.get()); }, call);
}

}  // namespace zeptick::python
