#include "kx/format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace kx {
namespace {

std::string C(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string C(const char* f, ...) {
  va_list ap, again;
  va_start(ap, f);
  va_copy(again, ap);
  const int n = std::vsnprintf(nullptr, 0, f, ap);
  std::string out(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(out.data(), out.size(), f, again);
  va_end(again);
  va_end(ap);
  out.pop_back();
  return out;
}

// The same directive through snprintf and through Format must agree.
#define EXPECT_LIKE_C(f, ...) EXPECT_EQ(Format(f, __VA_ARGS__), C(f, __VA_ARGS__)) << f

TEST(FormatTest, IntegersMatchPrintf) {
  for (long long v : {0LL, 1LL, -1LL, 42LL, -42LL, 123456789LL, LLONG_MAX, LLONG_MIN}) {
    EXPECT_LIKE_C("%lld|%+lld|% lld|%8lld|%-8lld|%08lld|%.5lld|%8.3lld|%'lld", v, v, v, v, v, v, v,
                  v, v);
    EXPECT_LIKE_C("%llu|%llx|%llX|%#llx|%#llo|%llo|%020llu|%-#12llx|%.0llx",
                  (unsigned long long)v, (unsigned long long)v, (unsigned long long)v,
                  (unsigned long long)v, (unsigned long long)v, (unsigned long long)v,
                  (unsigned long long)v, (unsigned long long)v, (unsigned long long)v);
  }
  for (int v : {0, 7, -7, 300, -300, INT_MAX, INT_MIN}) {
    EXPECT_LIKE_C("%d|%i|%5d|%-5d|%x|%o|%u|%hd|%hhd|%hu|%hhx|%c", v, v, v, v, v, v, v, v, v, v,
                  v, v & 0x7f);
  }
  EXPECT_LIKE_C("%zu %zd %jd %td %ld %lu", size_t{9}, ssize_t{-9}, intmax_t{-3}, ptrdiff_t{4},
                -5L, 6UL);
  // The length modifier narrows a wider argument as C would read it.
  EXPECT_EQ(Format("%d %hhd %hu", int64_t{1} << 33 | 7, 300, -1), "7 44 65535");
  EXPECT_EQ(Format("%qd %D %U %O", int64_t{1} << 40, int64_t{-2}, uint64_t{3}, 8), 
            "1099511627776 -2 3 10");
}

TEST(FormatTest, FloatsMatchPrintf) {
  for (double v : std::initializer_list<double>{0.0, -0.0, 1.0, -1.5, 3.14159265358979, 1e-7, 123456789.125, 1e300, -2.5e-300,
                   INFINITY, -INFINITY, NAN}) {
    EXPECT_LIKE_C("%f|%.2f|%10.3f|%-10.1f|%+f|% f|%010.2f|%#.0f|%F", v, v, v, v, v, v, v, v, v);
    EXPECT_LIKE_C("%e|%.3E|%g|%G|%#g|%.10g|%a|%.2A|%12.4e", v, v, v, v, v, v, v, v, v);
  }
  EXPECT_LIKE_C("%.*f|%*.*e|%-*g", 3, 2.5, 12, 2, 1e10, 8, 0.5);
  EXPECT_LIKE_C("%.300f", 1e-300);  // longer than the stack buffer
  EXPECT_EQ(Format("%f %d", 7, 2.9), "7.000000 2");  // the argument converts, not reinterprets
}

TEST(FormatTest, StringsAndCharacters) {
  EXPECT_LIKE_C("[%s|%10s|%-10s|%.2s|%8.3s|%%|%c|%3c|%-3c]", "hello", "hi", "hi", "hello",
                "hello", 'x', 'y', 'z');
  const char* nothing = nullptr;
  EXPECT_EQ(Format("%s|%5s|%.3s", nothing, nothing, nothing), "(null)|(null)|(nu");
  EXPECT_EQ(Format("%s %s", std::string("std"), std::string_view("view")), "std view");
  EXPECT_EQ(Format("%lc%C", 0xE9, 0x1F600), "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(Format("%c", 0) , std::string(1, '\0'));
}

class Named : public Object {
 public:
  std::string className() const override { return "KXNamed"; }
  std::string description() const override { return "named"; }
};

TEST(FormatTest, ObjectDirective) {
  const Value list(Array{1, "x"});
  EXPECT_EQ(Format("%@ %@ %@", Value("text"), Value(), Value::Null()), "text (null) <null>");
  EXPECT_EQ(Format("%@", list), list.description());
  EXPECT_EQ(Format("%@|%@|%@", 12, 2.5, "c"), "12|2.5|c");
  auto named = std::make_shared<Named>();
  EXPECT_EQ(Format("<%@>", named), "<named>");
  EXPECT_EQ(Format("<%@>", std::shared_ptr<Named>()), "<(null)>");
  const Named* raw = nullptr;
  EXPECT_EQ(Format("<%@>", raw), "<(null)>");
  const std::optional<std::string> none, some("s");
  EXPECT_EQ(Format("%@%@", none, some), "(null)s");
  // Width and precision count characters.
  EXPECT_EQ(Format("[%6@][%-6@][%.2@]", Value("\xC3\xA9t\xC3\xA9"), Value("ab"),
                   Value("\xC3\xA9t\xC3\xA9")),
            "[   \xC3\xA9t\xC3\xA9][ab    ][\xC3\xA9t]");
}

TEST(FormatTest, PointersPositionsAndStars) {
  int x = 0;
  EXPECT_EQ(Format("%p", static_cast<const void*>(&x)), C("%p", static_cast<void*>(&x)));
  EXPECT_EQ(Format("%p|%5p|%-5p|", static_cast<const void*>(nullptr),
                   static_cast<const void*>(nullptr), static_cast<const void*>(nullptr)),
            "0x0|  0x0|0x0  |");
  auto named = std::make_shared<Named>();
  EXPECT_EQ(Format("%p", named), C("%p", static_cast<void*>(named.get())));
  EXPECT_EQ(Format("%2$@-%1$@ %2$d", "a", 7), "7-a 7");
  EXPECT_EQ(Format("[%*d][%*d][%.*d][%-*s]", 4, 1, -4, 2, -1, 3, 3, "z"), "[   1][2   ][3][z  ]");
  EXPECT_EQ(Format("[%1$*2$d]", 5, 3), "[  5]");
}

TEST(FormatTest, MissingArgumentsAndOddDirectivesDoNotCrash) {
  EXPECT_EQ(Format("a%db%sc%@d%fe%pf%cg"), "abc(null)defg");
  EXPECT_EQ(Format("%d %d", 1), "1 ");
  EXPECT_EQ(Format("%3$d", 1), "");
  EXPECT_EQ(Format("[%*d]"), "[]");
  EXPECT_EQ(Format("100%"), "100%");
  EXPECT_EQ(Format("%-08.3l"), "%-08.3l");
  EXPECT_EQ(Format("%y %k %d", 5), "%y %k 5");
  EXPECT_EQ(Format("%n%d", 1, 2), "2");
  // Absurd widths saturate instead of allocating gigabytes.
  EXPECT_EQ(Format("%99999999999d", 1).size(), size_t{1} << 20);
  EXPECT_EQ(Format("no directives"), "no directives");
}

}  // namespace
}  // namespace kx
