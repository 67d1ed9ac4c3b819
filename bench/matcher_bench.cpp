// Matcher throughput: 100,000 titles of three kinds against a two-word
// query, through matchesUTF8String. The anchor is the same ASCII titles
// through the UTF-16 path, which always splits words with ICU.
#include <benchmark/benchmark.h>
#include <unicode/unistr.h>

#include <random>
#include <string>
#include <vector>

#include "kx/KXMatcher.h"

namespace {

constexpr size_t kTitles = 100000;

const std::vector<std::string> kEnglish = {
    "the", "of", "and", "meeting", "notes", "project", "summer", "vacation", "photos",
    "report", "budget", "quarterly", "team", "lunch", "with", "John", "Smith", "Maria",
    "Garcia", "invoice", "March", "April", "review", "design", "draft", "final", "music",
    "playlist", "road", "trip", "recipe", "chocolate", "cake", "birthday", "party", "weekly",
    "sync", "call", "dentist", "appointment", "flight", "to", "Berlin", "tickets", "book",
    "club", "reading", "list", "guitar", "lessons", "homework", "garden", "plans", "car",
    "insurance", "renewal", "2026", "v2.1", "Q3", "don't", "e-mail"};
const std::vector<std::string> kAccented = {
    "réunion", "équipe", "été", "vacances", "café", "crème", "brûlée", "déjeuner", "München",
    "Straße", "Übersicht", "Größe", "Ärzte", "señor", "año", "niño", "mañana", "canción",
    "educação", "São", "Paulo", "Kraków", "Łódź", "Zürich", "Genève", "résumé", "naïve",
    "façade", "über", "schön", "Müller", "Jürgen", "Françoise", "Hélène", "København",
    "de", "la", "und", "für", "avec", "notes", "rapport", "photos", "mars", "avril"};
const std::vector<std::string> kCyrillic = {
    "встреча", "команда", "отпуск", "лето", "фото", "отчёт", "бюджет", "обед", "Иван",
    "Петров", "Мария", "счёт", "март", "апрель", "обзор", "дизайн", "черновик", "музыка",
    "дорога", "рецепт", "торт", "день", "рождения", "Москва", "билеты", "книга", "клуб",
    "список", "гитара", "уроки", "сад", "машина", "страховка", "ёлка", "и", "с", "в", "на"};

// Titles of three to seven words, some with punctuation, reproducibly.
std::vector<std::string> Titles(const std::vector<std::string>& words) {
  std::mt19937 random(42);
  std::vector<std::string> titles;
  titles.reserve(kTitles);
  for (size_t i = 0; i < kTitles; ++i) {
    std::string title;
    for (size_t n = 3 + random() % 5; n > 0; --n) {
      if (!title.empty()) title += random() % 8 == 0 ? ", " : " ";
      title += words[random() % words.size()];
    }
    titles.push_back(std::move(title));
  }
  return titles;
}

void MatchAll(benchmark::State& state, const std::vector<std::string>& words, const char* query) {
  const std::vector<std::string> titles = Titles(words);
  auto matcher = KXMatcher::initWithSearchString(query, "en_US", 0);
  size_t matched = 0;
  for (auto _ : state) {
    for (const std::string& title : titles) matched += matcher->matchesUTF8String(title.c_str());
  }
  benchmark::DoNotOptimize(matched);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * titles.size()));
  state.counters["matched"] =
      static_cast<double>(matched) / static_cast<double>(state.iterations());
}

void BM_ASCIITitles(benchmark::State& state) { MatchAll(state, kEnglish, "team mee"); }
void BM_AccentedLatinTitles(benchmark::State& state) { MatchAll(state, kAccented, "reu equ"); }
void BM_CyrillicTitles(benchmark::State& state) { MatchAll(state, kCyrillic, "встр ком"); }

void BM_Anchor_ASCIITitlesThroughICU(benchmark::State& state) {
  std::vector<std::u16string> titles;
  for (const std::string& title : Titles(kEnglish)) {
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(title);
    titles.emplace_back(text.getBuffer(), text.length());
  }
  auto matcher = KXMatcher::initWithSearchString("team mee", "en_US", 0);
  size_t matched = 0;
  for (auto _ : state) {
    for (const std::u16string& title : titles) matched += matcher->matches(title);
  }
  benchmark::DoNotOptimize(matched);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * titles.size()));
}

BENCHMARK(BM_ASCIITitles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AccentedLatinTitles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CyrillicTitles)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Anchor_ASCIITitlesThroughICU)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
