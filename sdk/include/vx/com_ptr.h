// Owning COM interface pointer, for the host, the component and the tests alike.
#pragma once

#include <utility>

#include "vx/com.h"

namespace vx {

template <class T>
class ComPtr {
 public:
  ComPtr() = default;
  // Takes over a reference the caller already holds.
  static ComPtr Adopt(T* p) {
    ComPtr c;
    c.p_ = p;
    return c;
  }
  // Adds a reference of its own.
  static ComPtr Share(T* p) {
    if (p) p->AddRef();
    return Adopt(p);
  }
  ~ComPtr() { reset(); }
  ComPtr(const ComPtr& o) : p_(o.p_) {
    if (p_) p_->AddRef();
  }
  ComPtr& operator=(const ComPtr& o) {
    if (this != &o) *this = Share(o.p_);
    return *this;
  }
  ComPtr(ComPtr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  ComPtr& operator=(ComPtr&& o) noexcept {
    if (this != &o) {
      reset();
      p_ = std::exchange(o.p_, nullptr);
    }
    return *this;
  }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }
  void reset() {
    if (p_) std::exchange(p_, nullptr)->Release();
  }
  // Hands the reference to the caller.
  T* detach() { return std::exchange(p_, nullptr); }
  // For out parameters: drops what is held and gives the slot.
  T** put() {
    reset();
    return &p_;
  }
  void** put_void() { return reinterpret_cast<void**>(put()); }

  // The object's `U` interface when it offers one, else empty.
  template <class U>
  ComPtr<U> As(REFIID iid) const {
    ComPtr<U> out;
    if (p_ && FAILED(p_->QueryInterface(iid, out.put_void()))) out.reset();
    return out;
  }

 private:
  T* p_ = nullptr;
};

}  // namespace vx
