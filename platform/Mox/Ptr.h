#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

// Counted references.
//
// An object is born with one reference, which `make` hands to the pointer that it returns. So a constructor
// may make and drop counted pointers to `this` freely: they can neither delete the object nor keep it. A
// constructor that throws leaves nothing behind. Counting is not atomic: an object belongs to one thread.

namespace Mox {

class Referenced {
 public:
  Referenced() = default;
  Referenced(const Referenced&) = delete;
  Referenced& operator=(const Referenced&) = delete;

  void addReference() const { ++references_; }
  void dropReference() const {
    if (--references_ == 0) delete this;
  }
  std::uint32_t references() const { return references_; }

 protected:
  virtual ~Referenced() = default;

 private:
  mutable std::uint32_t references_ = 1;
};

template <class T>
class Ptr {
 public:
  using element_type = T;

  Ptr() = default;
  Ptr(std::nullptr_t) {}
  // Shares an object that is alive already; from `this` too.
  Ptr(T* object) : object_(object) {
    if (object_) object_->addReference();
  }
  Ptr(const Ptr& other) : Ptr(other.object_) {}
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(const Ptr<U>& other) : Ptr(other.get()) {}
  template <class U>
  requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
  noexcept : object_(other.release()) {}
  ~Ptr() {
    if (object_) object_->dropReference();
  }

  // The old object loses its reference last, when this pointer already shows the new one.
  Ptr& operator=(const Ptr& other) {
    Ptr(other).swap(*this);
    return *this;
  }
  Ptr& operator=(Ptr&& other) noexcept {
    Ptr(std::move(other)).swap(*this);
    return *this;
  }

  // Takes over the reference that the object was born with, or that `release` gave up.
  static Ptr adopt(T* object) {
    Ptr ptr;
    ptr.object_ = object;
    return ptr;
  }
  T* release() { return std::exchange(object_, nullptr); }

  void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }
  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  // Comparison is by identity.
  template <class U>
  bool operator==(const Ptr<U>& other) const {
    return object_ == other.get();
  }
  bool operator==(std::nullptr_t) const { return object_ == nullptr; }
  bool operator==(const T* object) const { return object_ == object; }
  bool operator<(const Ptr& other) const { return std::less<const T*>()(object_, other.object_); }

 private:
  T* object_ = nullptr;
};

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
  return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& ptr) {
  return Ptr<T>(dynamic_cast<T*>(ptr.get()));
}

}  // namespace Mox
