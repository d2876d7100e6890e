#pragma once

#include <any>
#include <tuple>
#include <type_traits>

#include "Mox/Ptr.h"

namespace Mox {

// A child that its owner makes from given inputs. Asked for again with the same type and inputs it is kept;
// with others the old child is destroyed before the new one is made, so that what the old one withdraws is
// not what the new one published.
template <class Base>
class Owner {
 public:
  const Ptr<Base>& child() const { return child_; }
  Base* operator->() const { return child_.get(); }
  explicit operator bool() const { return static_cast<bool>(child_); }

  template <class Child = Base, class... Inputs>
  const Ptr<Base>& is(Inputs... inputs) {
    using Key = std::tuple<std::type_identity<Child>*, Inputs...>;
    Key key(nullptr, inputs...);
    const Key* held = std::any_cast<Key>(&inputs_);
    if (child_ && held && *held == key) return child_;
    del();
    inputs_ = std::move(key);
    child_ = make<Child>(std::move(inputs)...);
    return child_;
  }
  // Destroys the child, unless the caller keeps what is returned.
  Ptr<Base> del() {
    Ptr<Base> child = std::move(child_);
    child_ = nullptr;
    inputs_.reset();
    return child;
  }

 private:
  Ptr<Base> child_;
  std::any inputs_;
};

}  // namespace Mox
