// Intrusive reference counting for entities, reactors and SMs.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace Zol {

// Reference counts are plain integers: everything runs on one activity thread. An agent that
// shares objects across threads turns on the global switch before creating any object.
void threadSafePtrsIs(bool on);
bool threadSafePtrs();

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(PtrInterface const&) = delete;
  PtrInterface& operator=(PtrInterface const&) = delete;

  void newRef() const {
    if (threadSafe_) {
      std::atomic_ref<uint32_t>(refs_).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++refs_;
    }
  }
  void deleteRef() const {
    uint32_t left;
    if (threadSafe_) {
      left = std::atomic_ref<uint32_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) - 1;
    } else {
      left = --refs_;
    }
    if (left == 0) const_cast<PtrInterface*>(this)->onZeroReferences();
  }
  uint32_t references() const { return refs_; }

 protected:
  virtual ~PtrInterface() = default;
  // Called when the last reference goes; the default deletes the object.
  virtual void onZeroReferences() { delete this; }

 private:
  mutable uint32_t refs_ = 0;
  bool const threadSafe_ = threadSafePtrs();
};

template <class T>
class Ptr {
 public:
  using element_type = T;
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  Ptr(T* p) noexcept : p_(p) {
    if (p_) p_->newRef();
  }
  Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(Ptr<U> const& o) noexcept : Ptr(o.ptr()) {}
  template <class U>
  Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
  ~Ptr() {
    if (p_) p_->deleteRef();
  }
  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* ptr() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  bool operator!() const noexcept { return p_ == nullptr; }
  // Gives up the reference without releasing it.
  T* release() noexcept { return std::exchange(p_, nullptr); }

  template <class U>
  bool operator==(Ptr<U> const& o) const noexcept {
    return p_ == o.ptr();
  }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T, class U>
Ptr<T> ptr_cast(Ptr<U> const& p) {
  return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

}  // namespace Zol
