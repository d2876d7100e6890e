#pragma once

#include <array>
#include <compare>
#include <string>
#include <vector>

#include "Mox/Attribute.h"
#include "Mox/Error.h"
#include "Mox/Notifiee.h"
#include "Mox/Strep.h"
#include "Statedb/Register.h"

// A small model with one member of every kind that the codec knows.
namespace Test {

// A number in a class; the constructor checks.
class Label {
 public:
  Label() = default;
  explicit Label(std::uint32_t value) : value_(value) {
    if (value > 1000) throw Mox::RangeError("Test::Label::value > 1000 not allowed");
  }
  std::uint32_t value() const { return value_; }
  auto operator<=>(const Label&) const = default;
  std::string toStrep() const { return std::to_string(value_); }
  static std::optional<Label> fromStrep(std::string_view text) {
    const auto value = Mox::fromStrep<std::uint32_t>(text);
    if (!value) return std::nullopt;
    return Label(*value);
  }
  static const char* allowed() { return "a label from 0 to 1000"; }

 private:
  std::uint32_t value_ = 0;
};

// Has a number but is written as text: "<high>.<low>".
class Address {
 public:
  Address() = default;
  explicit Address(std::uint32_t value) : value_(value) {}
  std::uint32_t value() const { return value_; }
  auto operator<=>(const Address&) const = default;
  std::uint64_t hash(std::uint64_t seed) const { return Mox::hashMix(value_, seed); }
  std::string toStrep() const { return std::to_string(value_ >> 16) + "." + std::to_string(value_ & 0xffff); }
  static std::optional<Address> fromStrep(std::string_view text) {
    const std::size_t dot = text.find('.');
    if (dot == std::string_view::npos) return std::nullopt;
    const auto high = Mox::fromStrep<std::uint16_t>(text.substr(0, dot));
    const auto low = Mox::fromStrep<std::uint16_t>(text.substr(dot + 1));
    if (!high || !low) return std::nullopt;
    return Address(static_cast<std::uint32_t>(*high) << 16 | *low);
  }

 private:
  std::uint32_t value_ = 0;
};

enum class Color { red, green };
inline constexpr std::array<const char*, 2> kColorNames{"red", "green"};
constexpr const auto& moxEnumNames(Color) { return kColorNames; }

struct Entry {
  Address mac;
  bool dynamic = false;
  std::uint8_t type = 0;
  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("mac", &Entry::mac), Mox::Field("dynamic", &Entry::dynamic),
                      Mox::Field("type", &Entry::type));
  }
  friend bool operator==(const Entry&, const Entry&) = default;
};

struct EntryKey {
  Address ip;
  std::string intf;
  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("ip", &EntryKey::ip), Mox::Field("intf", &EntryKey::intf));
  }
  friend auto operator<=>(const EntryKey&, const EntryKey&) = default;
};

class Vrf final : public Mox::Entity {
 public:
  explicit Vrf(std::string name) : name_(std::move(name)) {}
  MOX_ATTRIBUTE(Color, state, Color::green)
  MOX_HASH(Address, Entry, ipv4)
  MOX_MAP(EntryKey, Entry, ipv6)
  MOX_MEMBERS(state, ipv4, ipv6)

 private:
  std::string name_;
};

// Takes more than its key.
class Peer final : public Mox::Entity {
 public:
  Peer(Address key, std::string name) : key_(key), name_(std::move(name)) {}
  const Address& key() const { return key_; }
  MOX_ATTRIBUTE(std::uint16_t, weight, 1)
  MOX_MEMBERS(weight)

 private:
  Address key_;
  std::string name_;
};

class Other final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(bool, on, false)
  MOX_MEMBERS(on)
};

class Config final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(bool, enabled, true)
  MOX_ATTRIBUTE(std::int8_t, level, 3)
  MOX_ATTRIBUTE(Label, label)
  MOX_ATTRIBUTE(Entry, entry)
  MOX_ATTRIBUTE(std::vector<Address>, addresses)
  MOX_ATTRIBUTE(Mox::Ptr<Mox::Entity>, owner)
  MOX_MAP(std::uint16_t, std::uint16_t, fid)
  MOX_SET(Label, vlan)
  MOX_CHILDREN(std::string, Vrf, vrf)
  MOX_HASH_CHILDREN(Address, Peer, key, peer)
  MOX_CHILD(Other, one)
  MOX_MEMBERS(enabled, level, label, entry, addresses, owner, fid, vlan, vrf, peer, one)
};

inline Statedb::TypeRegistry& registry() {
  static Statedb::TypeRegistry types;
  types.registerType<Config>("Test::Config");
  types.registerType<Other>("Test::Other");
  return types;
}
inline const Statedb::EntityType& configType() { return *registry().find("Test::Config"); }

inline void merge(const Mox::Ptr<Config>& config, std::string_view text) {
  auto plan = configType().planMerge(config, nlohmann::json::parse(text), "test");
  if (!plan) throw std::logic_error(plan.error());
  plan->apply();
}

}  // namespace Test
