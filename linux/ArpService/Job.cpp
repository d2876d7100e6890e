#include "ArpService/Job.h"

#include <linux/neighbour.h>
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

bool Job::isSilent() const { return asked && (actual.state & NUD_FAILED) != 0; }

void bringInStep(Netlink::Socket& socket, std::span<Job> jobs) {
  std::vector<Job*> create;
  std::vector<Job*> look;
  std::vector<Job*> change;
  for (Job& job : jobs) (job.wish.kind == Wish::Kind::nothing ? look : create).push_back(&job);
  exchange(
      socket, create,
      [](const Job& job) { return writeRequest(job.ifIndex, job.address, job.wish, NLM_F_EXCL); },
      [&](Job& job, const Mox::Result<>& result) {
        if (result.number() == EEXIST) {
          look.push_back(&job);
        } else {
          job.result = result;
        }
      });
  // One that has gone in between is like one that never was.
  exchange(
      socket, look, [](const Job& job) { return Netlink::neighbourGet(job.ifIndex, job.address); },
      [&](Job& job, const Mox::Result<>& result) {
        if (!result && result.number() != ENOENT) {
          job.result = result;
        } else if (!job.isSilent() && judge(job.wish, job.actual) != Verdict::leave) {
          change.push_back(&job);
        }
      });
  exchange(
      socket, change,
      [](const Job& job) {
        return judge(job.wish, job.actual) == Verdict::remove
                   ? removeRequest(job.ifIndex, job.address)
                   : writeRequest(job.ifIndex, job.address, job.wish, NLM_F_REPLACE);
      },
      [](Job& job, const Mox::Result<>& result) {
        if (!result && result.number() != ENOENT) job.result = result;
      });
}

}  // namespace ArpService
