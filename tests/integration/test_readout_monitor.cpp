// kalo-monitor, the command-line state monitor, against the simulator: one
// snapshot shows what the controller reports.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "core_support.h"
#include "simulator.h"

namespace {

// The tool is built beside the library, in the build tree's tools/.
std::string monitor_path() {
  const char *lib = std::getenv("KALO_LIBRARY_FILE");
  if (lib == nullptr)
    return {};
  std::string dir(lib);
  dir.erase(dir.rfind('/') + 1);
  return dir + "tools/kalo-monitor";
}

// Runs the tool; its standard output and exit status.
std::pair<std::string, int> run(const std::string &command) {
  std::string out;
  FILE *p = popen(command.c_str(), "r");
  if (p == nullptr)
    return {out, -1};
  char buf[512];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
    out.append(buf, n);
  const int status = pclose(p);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

} // namespace

TEST(Monitor, OneSnapshotShowsButtonsPowerFailuresAndAlarms) {
  const std::string tool = monitor_path();
  if (tool.empty() || access(tool.c_str(), X_OK) != 0)
    GTEST_SKIP() << "kalo-monitor not built";

  kalo::sim::Config cfg;
  cfg.port = 0;
  kalo::sim::Simulator sim(cfg);
  ASSERT_TRUE(sim.start());
  const std::string url = core_test::url_for(core_test::free_udp_port(), sim.port());
  sim.set_buttons(0x8005);
  sim.set_failure(0x0004);
  sim.set_alarm(1u << 19);
  sim.set_power(true);

  const auto [out, status] = run(tool + " --once " + url);
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("kalo-monitor  " + url + "\n"), std::string::npos) << out;
  EXPECT_NE(out.find("buttons   1 3 16\n"), std::string::npos) << out;
  EXPECT_NE(out.find("power     on\n"), std::string::npos) << out;
  EXPECT_NE(out.find("failures  3\n"), std::string::npos) << out;
  EXPECT_NE(out.find("alarms    0x00090000"), std::string::npos) << out;
  EXPECT_NE(out.find("shift position yes"), std::string::npos) << out;
  EXPECT_NE(out.find("pose      "), std::string::npos) << out;
}

TEST(Monitor, RefusesBadArgumentsAndReportsAMissingController) {
  const std::string tool = monitor_path();
  if (tool.empty() || access(tool.c_str(), X_OK) != 0)
    GTEST_SKIP() << "kalo-monitor not built";
  EXPECT_EQ(run(tool + " 2>/dev/null").second, 2);
  EXPECT_EQ(run(tool + " --period fast 127.0.0.1 2>/dev/null").second, 2);
  EXPECT_EQ(run(tool + " --once tcp://127.0.0.1 2>/dev/null").second, 1);
  const auto help = run(tool + " --help");
  EXPECT_EQ(help.second, 0);
  EXPECT_NE(help.first.find("usage: kalo-monitor"), std::string::npos);
}

// A controller that stops streaming ends the live screen with status 1 and a
// reason, within the documented 1 s of silence.
TEST(Monitor, ExitsWithAReasonWhenTheControllerFallsSilent) {
  const std::string tool = monitor_path();
  if (tool.empty() || access(tool.c_str(), X_OK) != 0)
    GTEST_SKIP() << "kalo-monitor not built";
  kalo::sim::Config cfg;
  cfg.port = 0;
  kalo::sim::Simulator sim(cfg);
  ASSERT_TRUE(sim.start());
  const std::string url = core_test::url_for(core_test::free_udp_port(), sim.port());
  FILE *p = popen((tool + " --period 0.05 " + url + " 2>&1").c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char line[512];
  bool paused = false;
  while (std::fgets(line, sizeof line, p) != nullptr) {
    out += line;
    if (!paused && std::string(line).rfind("link ", 0) == 0) {
      sim.pause(); // the first screen is up: the controller stops
      paused = true;
    }
  }
  const int status = pclose(p);
  EXPECT_TRUE(paused) << out;
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 1) << out;
  EXPECT_NE(out.find("kalo-monitor: the controller stopped answering: no state frame for 1.0 s"),
            std::string::npos)
      << out;
}
