// Generated words drawn Zipf-like (weight 1/rank), for benchmark corpora
// whose common words are as common as in real text: words of 3 to 10
// letters, every fifth with an accented letter at its end.
#pragma once

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace kx::bench {

class ZipfWords {
 public:
  // Draws from `random`, which must outlive this object.
  ZipfWords(size_t count, std::mt19937& random) : random_(random) {
    const char* letters = "abcdefghijklmnoprstuvwyz";
    const std::vector<std::string> accented = {"é", "ö", "ñ", "å", "č"};
    for (size_t i = 0; i < count; ++i) {
      std::string word;
      const int length = 3 + static_cast<int>(random_() % 8);
      for (int n = 0; n < length; ++n) word += letters[random_() % 24];
      if (i % 5 == 0) word += accented[random_() % accented.size()];
      vocabulary_.push_back(word);
    }
    double total = 0;
    for (size_t r = 1; r <= vocabulary_.size(); ++r) cumulative_.push_back(total += 1.0 / static_cast<double>(r));
  }

  const std::string& word() {
    const double x = std::uniform_real_distribution<double>(0, cumulative_.back())(random_);
    return vocabulary_[std::lower_bound(cumulative_.begin(), cumulative_.end(), x) - cumulative_.begin()];
  }
  // Between `min` and `max` words, separated by spaces.
  std::string words(int min, int max) {
    std::string text;
    for (int n = min + static_cast<int>(random_() % (max - min + 1)); n > 0; --n) text += (text.empty() ? "" : " ") + word();
    return text;
  }

 private:
  std::mt19937& random_;
  std::vector<std::string> vocabulary_;
  std::vector<double> cumulative_;
};

}  // namespace kx::bench
