// The generated corpus of the daemon benchmarks, seeded so that every run
// and every tool sees the same items: domains 4 (10%), 19 (2%), 2 (28%),
// 5 (60%); titles of 2 to 4 words, keywords 0 to 3 words, bodies of notes
// 10 to 30 words; words drawn Zipf-like (exponent 1) from a vocabulary of
// 20,000 generated words of 3 to 10 letters, a fifth of them with an
// accented letter. Item i has the identifier "g<i>".
#pragma once

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "searchd/item.h"

namespace kx::bench {

using kx::searchd::Item;

class Corpus {
 public:
  Corpus() : random_(20261123) {
    const char* letters = "abcdefghijklmnoprstuvwyz";
    const std::vector<std::string> accented = {"é", "ö", "ñ", "å", "č"};
    for (int i = 0; i < 20000; ++i) {
      std::string word;
      const int length = 3 + static_cast<int>(random_() % 8);
      for (int n = 0; n < length; ++n) word += letters[random_() % 24];
      if (i % 5 == 0) word += accented[random_() % accented.size()];
      vocabulary_.push_back(word);
    }
    // Zipf weights 1/rank.
    double total = 0;
    for (size_t r = 1; r <= vocabulary_.size(); ++r) cumulative_.push_back(total += 1.0 / static_cast<double>(r));
  }

  const std::string& word() {
    const double x = std::uniform_real_distribution<double>(0, cumulative_.back())(random_);
    return vocabulary_[std::lower_bound(cumulative_.begin(), cumulative_.end(), x) - cumulative_.begin()];
  }
  std::string words(int min, int max) {
    std::string text;
    for (int n = min + static_cast<int>(random_() % (max - min + 1)); n > 0; --n) text += (text.empty() ? "" : " ") + word();
    return text;
  }
  Item item(int i) {
    Item item;
    const int bucket = static_cast<int>(random_() % 100);
    item.domain = bucket < 10 ? 4 : bucket < 12 ? 19 : bucket < 40 ? 2 : 5;
    item.bundle = item.domain == 4 || item.domain == 19 ? "app" + std::to_string(i) : "com.orvex.generated";
    item.identifier = "g" + std::to_string(i);
    item.title = words(2, 4);
    item.keywords = words(0, 3);
    if (item.domain == 5) item.body = words(10, 30);
    item.url = "file:///generated/" + std::to_string(i);
    return item;
  }

 private:
  std::mt19937 random_;
  std::vector<std::string> vocabulary_;
  std::vector<double> cumulative_;
};

}  // namespace kx::bench
