// The generated corpus of the daemon benchmarks, seeded so that every run
// and every tool sees the same items: domains 4 (10%), 19 (2%), 2 (28%),
// 5 (60%); titles of 2 to 4 words, keywords 0 to 3 words, bodies of notes
// 10 to 30 words; words drawn Zipf-like (exponent 1) from a vocabulary of
// 20,000 generated words of 3 to 10 letters, a fifth of them with an
// accented letter. Item i has the identifier "g<i>".
#pragma once

#include <random>
#include <string>

#include "bench/zipf_words.h"
#include "searchd/item.h"

namespace kx::bench {

using kx::searchd::Item;

class Corpus {
 public:
  Corpus() : random_(20261123), words_(20000, random_) {}

  const std::string& word() { return words_.word(); }
  std::string words(int min, int max) { return words_.words(min, max); }
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
  std::mt19937 random_;  // declared before words_, which draws from it
  ZipfWords words_;
};

}  // namespace kx::bench
