// The library's dynamic symbol table is its ABI: it must hold exactly the
// C names of the published list that are implemented, plus the extensions
// declared in kalo_ext.h, and nothing else.
#include <gtest/gtest.h>

#include <iterator>
#include <regex>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> run_nm(const std::string &args) {
  std::set<std::string> names;
  const char *lib = std::getenv("KALO_LIBRARY_FILE");
  if (lib == nullptr)
    return names;
  std::string cmd = "nm " + args + " '" + lib + "'";
  FILE *p = popen(cmd.c_str(), "r");
  if (p == nullptr)
    return names;
  char line[1024];
  while (std::fgets(line, sizeof line, p) != nullptr) {
    std::istringstream in(line);
    std::string a, b, c;
    in >> a >> b >> c;
    // "addr type name" for defined symbols
    if (!c.empty())
      names.insert(c.substr(0, c.find('@')));
  }
  pclose(p);
  return names;
}

std::set<std::string> published() {
  std::set<std::string> names;
  const char *file = std::getenv("KALO_EXPORTS_FILE");
  std::ifstream in(file != nullptr ? file : "");
  std::string name;
  while (in >> name)
    names.insert(name);
  return names;
}

// The functions kalo_ext.h declares: every "KALO_API ... name(".
std::set<std::string> extensions() {
  std::set<std::string> names;
  const char *file = std::getenv("KALO_EXT_HEADER");
  std::ifstream in(file != nullptr ? file : "");
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::regex declaration(R"(KALO_API[^;(]*?\b(\w+)\s*\()");
  for (std::sregex_iterator m(text.begin(), text.end(), declaration), end; m != end; ++m)
    names.insert((*m)[1].str());
  return names;
}

} // namespace

TEST(Exports, DynamicSymbolsAreExactlyThePublishedImplementedNames) {
  auto list = published();
  if (list.empty())
    GTEST_SKIP() << "published symbol list not found (KALO_EXPORTS_FILE)";
  const auto ext = extensions();
  ASSERT_FALSE(ext.empty()) << "kalo_ext.h not found or declares nothing (KALO_EXT_HEADER)";
  for (const auto &s : ext) {
    EXPECT_EQ(s.rfind("kaloExt", 0), 0u) << "extension without the kaloExt prefix: " << s;
    list.insert(s);
  }
  const auto dynamic = run_nm("-D --defined-only");
  const auto all = run_nm("--defined-only");
  ASSERT_FALSE(dynamic.empty()) << "nm could not read the library";

  for (const auto &s : dynamic) {
    if (s == "_init" || s == "_fini" || s.rfind("KALO_", 0) == 0 || s.rfind("LIBKALO", 0) == 0)
      continue;
    EXPECT_TRUE(list.count(s)) << "exported but not published: " << s;
  }
  for (const auto &s : ext)
    EXPECT_TRUE(dynamic.count(s)) << "declared in kalo_ext.h but not exported: " << s;
  for (const auto &s : list) {
    if (all.count(s)) {
      EXPECT_TRUE(dynamic.count(s)) << "implemented but not exported: " << s;
    }
  }
}
