// What the benchmark drivers share: where the client programs live, the
// key=value figures a client prints, medians.
#ifndef TAV_BENCH_DRIVER_H
#define TAV_BENCH_DRIVER_H

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "process.h"

namespace tavbench {

// The folder of the running program (the clients are built beside it).
inline std::string bin_dir() {
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string s(path);
  return s.substr(0, s.rfind('/'));
}

// The key=value items of a client's output.
inline std::map<std::string, double> figures_of(const std::string &text) {
  std::map<std::string, double> figures;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find_first_of(" \n", at);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(at, end - at);
    const size_t eq = item.find('=');
    if (eq != std::string::npos) figures[item.substr(0, eq)] = atof(item.c_str() + eq + 1);
    at = end + 1;
  }
  return figures;
}

// Runs a client; its figures, with "status" holding its exit status.
inline std::map<std::string, double> run_client(const std::vector<std::string> &argv) {
  tavtest::ProcessResult r = tavtest::run_process(argv);
  std::map<std::string, double> figures = figures_of(r.out);
  figures["status"] = r.exit_code;
  return figures;
}

inline std::string read_text(const std::string &path) {
  std::string text;
  if (FILE *f = fopen(path.c_str(), "r")) {
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    fclose(f);
  }
  return text;
}

// CPU seconds a process's threads have used so far, from each thread's
// schedstat (nanoseconds; /proc/<pid>/stat counts in 10 ms ticks, too coarse
// for a walk of a tenth of a second).  A thread that ends between two
// readings takes its time with it; slapd's pool threads stay.
inline double process_cpu_seconds(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/task";
  double total = 0;
  if (DIR *d = opendir(dir.c_str())) {
    while (const dirent *e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      total += atof(read_text(dir + "/" + e->d_name + "/schedstat").c_str()) / 1e9;
    }
    closedir(d);
  }
  return total;
}

inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// Rows of "measure  ours  libldap  ratio  spread ours / libldap", medians.
class Table {
 public:
  void row(const std::string &what, const std::vector<double> &ours, const std::vector<double> &theirs) {
    rows_.push_back({what, median(ours), median(theirs), spread(ours), spread(theirs)});
  }
  static void header() {
    printf("  %-34s %12s %12s %8s   %s\n", "measure", "ours", "libldap", "ratio", "spread ours / libldap");
  }
  void print(bool with_header = true) const {
    if (with_header) header();
    for (const Row &r : rows_)
      printf("  %-34s %12.2f %12.2f %8.2f   %s / %s\n", r.what.c_str(), r.ours, r.theirs,
             r.theirs != 0 ? r.ours / r.theirs : 0.0, r.spread_ours.c_str(), r.spread_theirs.c_str());
  }

 private:
  static std::string spread(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    char buf[64];
    snprintf(buf, sizeof buf, "%.2f-%.2f", v.empty() ? 0 : v.front(), v.empty() ? 0 : v.back());
    return buf;
  }
  struct Row {
    std::string what;
    double ours, theirs;
    std::string spread_ours, spread_theirs;
  };
  std::vector<Row> rows_;
};

}  // namespace tavbench

#endif
