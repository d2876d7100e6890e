#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "Mox/Attribute.h"
#include "Suppression/RemoteBindingConfig.h"

namespace ArpSuppression {

// From whom the feed has a remote binding, asked for when somebody wants to know it: nothing is kept for that.
// At "arpSuppression/remoteBindingConfig/origin"; the plug-in that reads the feed answers.
class BindingOrigin final : public Mox::Entity {
 public:
  struct Origin {
    Mox::String writer;            // "zebra"
    std::uint32_t ageSeconds = 0;  // since it was written last
  };
  using Ask = std::function<std::optional<Origin>(const RemoteBindingKey&)>;

  // May be called in a copy of the process that has none of its descriptors. Empty: nobody answers any more.
  void askIs(Ask ask) { ask_ = std::move(ask); }
  // Nothing: the feed does not have it.
  std::optional<Origin> of(const RemoteBindingKey& key) const { return ask_ ? ask_(key) : std::nullopt; }
  MOX_MEMBERS()

 private:
  Ask ask_;
};

inline constexpr const char* kBindingOriginPath = "arpSuppression/remoteBindingConfig/origin";
inline constexpr const char* kBindingOriginType = "ArpSuppression::BindingOrigin";

}  // namespace ArpSuppression
