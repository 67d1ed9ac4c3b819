// Texts a person might type into the search field: words of the sample
// data, their prefixes, and stray letters, drawn from a seeded generator so
// that a failing run replays.
#pragma once

#include <random>
#include <string>
#include <vector>

namespace kx::soak {

class RandomText {
 public:
  // Collects the words (two letters or more, any script) of every file
  // under `dataDir`.
  RandomText(const std::string& dataDir, uint64_t seed);

  // One to three pieces, each a vocabulary word, a prefix of one or a few
  // random letters, separated by single spaces; never blank.
  std::string next();
  // A number in [0, bound).
  size_t below(size_t bound) { return bound ? std::uniform_int_distribution<size_t>(0, bound - 1)(random_) : 0; }
  size_t vocabularySize() const { return words_.size(); }

 private:
  std::mt19937_64 random_;
  std::vector<std::string> words_;
};

}  // namespace kx::soak
