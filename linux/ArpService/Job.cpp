#include "ArpService/Job.h"

#include <linux/netlink.h>

#include <cerrno>
#include <vector>

namespace ArpService {
namespace {

template <class Request, class Answered>
void exchange(Netlink::Socket& socket, const std::vector<Job*>& jobs, Request request, Answered answered) {
  if (jobs.empty()) return;
  std::vector<Netlink::Message> messages;
  messages.reserve(jobs.size());
  for (const Job* job : jobs) messages.push_back(request(*job));
  socket.batch(
      messages, [&](std::size_t i, const Mox::Result<>& result) { answered(*jobs[i], result); },
      [&](std::size_t i, const Netlink::Received& message) {
        if (const auto actual = Netlink::readNeighbour(message)) jobs[i]->actual = *actual;
      });
}

}  // namespace

void bringInStep(Netlink::Socket& socket, std::span<Job> jobs) {
  std::vector<Job*> create;
  std::vector<Job*> look;
  std::vector<Job*> change;
  for (Job& job : jobs) (job.wanted ? create : look).push_back(&job);
  exchange(
      socket, create,
      [](const Job& job) { return writeRequest(job.ifIndex, job.address, *job.wanted, NLM_F_EXCL); },
      [&](Job& job, const Mox::Result<>& result) {
        if (result.number() == EEXIST) {
          look.push_back(&job);
        } else {
          job.result = result;
        }
      });
  // One that has gone in between is like one that never was.
  exchange(
      socket, look, [](const Job& job) { return lookRequest(job.ifIndex, job.address); },
      [&](Job& job, const Mox::Result<>& result) {
        if (!result && result.number() != ENOENT) {
          job.result = result;
        } else if (judge(job.wanted, job.actual) != Verdict::leave) {
          change.push_back(&job);
        }
      });
  exchange(
      socket, change,
      [](const Job& job) {
        return job.wanted ? writeRequest(job.ifIndex, job.address, *job.wanted, NLM_F_REPLACE)
                          : removeRequest(job.ifIndex, job.address);
      },
      [](Job& job, const Mox::Result<>& result) {
        if (!result && result.number() != ENOENT) job.result = result;
      });
}

}  // namespace ArpService
