#include "Mox/Hash.h"

#include <sys/random.h>
#include <unistd.h>

#include <ctime>

namespace Mox {

namespace Detail {
HashSeed processSeed(randomWord());
}

void hashSeedIs(std::uint64_t seed) { Detail::processSeed = HashSeed(seed); }

std::uint64_t randomWord() {
  std::uint64_t word = 0;
  if (getrandom(&word, sizeof word, GRND_NONBLOCK) != ssize_t{sizeof word}) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    word =
        foldMultiply(static_cast<std::uint64_t>(now.tv_nsec) << 20 ^ static_cast<std::uint64_t>(now.tv_sec),
                     0x9e3779b97f4a7c15ULL ^ static_cast<std::uint64_t>(getpid()));
  }
  return word == 0 ? 1 : word;
}

std::uint64_t hashBytes(const void* data, std::size_t size, std::uint64_t state) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::uint64_t hash = hashMix(size, state);
  for (; size >= 8; bytes += 8, size -= 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    hash = hashMix(word, hash);
  }
  if (size != 0) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, size);
    hash = hashMix(word, hash);
  }
  return hash;
}

}  // namespace Mox
