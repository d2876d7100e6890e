#pragma once

#include <cstdint>
#include <tuple>

#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace ArpSuppression {

// Requests that the data plane has answered, ARP's by the agent's reason for the answer; and neighbour
// solicitations to a group that it let pass on VLANs whose answers hold. They only grow for as long
// as `programs`, which says who counts, stays the same: a reading with one that was not seen before has its
// sums from before the reader's time, and is where counting begins.
struct AnswerSums {
  std::uint64_t programs = 0;  // 0: nothing was counted yet
  std::uint64_t remote = 0;
  std::uint64_t multihomedDf = 0;
  std::uint64_t multihomedNonDf = 0;
  std::uint64_t ndAnswered = 0;
  std::uint64_t ndPassed = 0;

  static constexpr auto moxFields() {
    return std::tuple(
        Mox::Field("programs", &AnswerSums::programs), Mox::Field("remote", &AnswerSums::remote),
        Mox::Field("multihomedDf", &AnswerSums::multihomedDf),
        Mox::Field("multihomedNonDf", &AnswerSums::multihomedNonDf),
        Mox::Field("ndAnswered", &AnswerSums::ndAnswered), Mox::Field("ndPassed", &AnswerSums::ndPassed));
  }
  friend bool operator==(const AnswerSums&, const AnswerSums&) = default;
};

// What a data plane that answers by the table of answers (Answer.h) does with it: at "softForward/answers".
// The sums are at most about a second old, and are written only when they have changed.
class DataPlaneAnswers final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(AnswerSums, sums)
  // Whether requests are answered there at all now.
  MOX_ATTRIBUTE(bool, holding, false)
  MOX_MEMBERS(sums, holding)
};

inline constexpr const char* kDataPlaneAnswersPath = "softForward/answers";
inline constexpr const char* kDataPlaneAnswersType = "ArpSuppression::DataPlaneAnswers";

}  // namespace ArpSuppression
