#include "Mox/Ptr.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "Mox/Owner.h"
#include "platform/Mox/Model.h"

namespace {

using ::testing::ElementsAre;

struct Counted : Mox::Referenced {
  Counted() { ++alive; }
  ~Counted() override { --alive; }
  static inline int alive = 0;
};

void look(const Mox::Ptr<Counted>&) {}

struct LooksAtItself final : Counted {
  LooksAtItself() {
    look(this);
    const Mox::Ptr<LooksAtItself> first(this);
    const Mox::Ptr<Counted> second = first;
    seen = references();
  }
  std::uint32_t seen = 0;
};

struct Throws final : Counted {
  Throws() : member(Mox::make<Counted>()) {
    look(this);
    throw std::runtime_error("no");
  }
  Mox::Ptr<Counted> member;
};

TEST(Ptr, counted_pointers_to_this_in_a_constructor_neither_delete_nor_keep_an_object_whole_or_not) {
  {
    const auto object = Mox::make<LooksAtItself>();
    EXPECT_EQ(object->seen, 3u);
    EXPECT_EQ(object->references(), 1u);
  }
  EXPECT_THROW(Mox::make<Throws>(), std::runtime_error);
  EXPECT_EQ(Counted::alive, 0);
}

MoxTest::Heard log_;

struct Reactor : Mox::Referenced {
  Reactor(int port, std::string name) : text(std::to_string(port) + name) { log_.push_back("+" + text); }
  ~Reactor() override { log_.push_back("-" + text); }
  std::string text;
};
struct OtherReactor final : Reactor {
  using Reactor::Reactor;
};
struct Fussy final : Counted {
  explicit Fussy(int value) {
    if (value < 0) throw std::runtime_error("negative");
  }
};

TEST(Owner, keeps_the_child_for_equal_inputs_and_destroys_it_before_making_another) {
  log_.clear();
  Mox::Owner<Reactor> owner;
  EXPECT_FALSE(owner);
  const Reactor* first = owner.is(1, std::string("a")).get();
  EXPECT_EQ(owner.is(1, std::string("a")).get(), first);
  owner.is(2, std::string("a"));
  owner.is<OtherReactor>(2, std::string("a"));
  auto kept = owner.del();
  EXPECT_FALSE(owner);
  owner.is<OtherReactor>(2, std::string("a"));
  kept = nullptr;
  owner.del();
  owner.del();
  EXPECT_THAT(log_, ElementsAre("+1a", "-1a", "+2a", "-2a", "+2a", "+2a", "-2a", "-2a"));
}

TEST(Owner, is_empty_after_a_child_that_could_not_be_made_and_tries_again) {
  Mox::Owner<Fussy> owner;
  owner.is(1);
  EXPECT_THROW(owner.is(-1), std::runtime_error);
  EXPECT_FALSE(owner);
  EXPECT_THROW(owner.is(-1), std::runtime_error);
  EXPECT_TRUE(owner.is(1));
  owner.del();
  EXPECT_EQ(Counted::alive, 0);
}

}  // namespace
