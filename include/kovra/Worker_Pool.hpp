#pragma once

// Running one job on several threads: how many threads a run may use, and a small pool of plain standard
// threads that run the same loop and hand the first failure back to the thread that waits for them.
//
// A run uses as many threads as the cores it may run on: the processors of its affinity mask, fewer where a
// container's CPU quota (cgroup v2 "cpu.max", or v1 "cpu.cfs_quota_us" over "cpu.cfs_period_us") allows
// fewer. The environment variable KOVRA_THREADS sets the count instead; 1 means the single-thread path.

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kovra {

/// The most threads a run takes, whatever it is told: far beyond any machine this runs on, and a bound on the
/// memory a mistyped count can ask for.
inline constexpr unsigned max_threads = 1024;

namespace detail {

/// The cores a CPU quota of `quota` microseconds per `period` allows, rounded up; nothing for no quota.
inline std::optional<unsigned> cores_of_quota(double quota, double period) {
  if (!(quota > 0) || !(period > 0)) return std::nullopt;
  return static_cast<unsigned>(std::max(1.0, std::ceil(quota / period)));
}

/// The quota of the cgroup (v2) `path` below the hierarchy's `root` and of every cgroup above it, up to the
/// root: the smallest, in cores.
inline std::optional<unsigned> read_cgroupV2Quota(const std::string& root, std::string path) {
  std::optional<unsigned> cores;
  for (;;) {
    std::ifstream file(root + path + "/cpu.max");
    std::string quota;
    double period = 0;
    if (file >> quota >> period && quota != "max") {
      if (const auto c = cores_of_quota(std::atof(quota.c_str()), period)) cores = std::min(cores.value_or(*c), *c);
    }
    const auto slash = path.find_last_of('/');
    if (path.empty() || slash == std::string::npos) break;
    path.erase(slash);
  }
  return cores;
}

/// The cgroup v1 quota of the cpu controller's hierarchy as this process sees it.
inline std::optional<unsigned> read_cgroupV1Quota() {
  for (const char* root : {"/sys/fs/cgroup/cpu", "/sys/fs/cgroup/cpu,cpuacct"}) {
    std::ifstream quotaFile(std::string(root) + "/cpu.cfs_quota_us");
    std::ifstream periodFile(std::string(root) + "/cpu.cfs_period_us");
    double quota = 0;
    double period = 0;
    if (quotaFile >> quota && periodFile >> period) return cores_of_quota(quota, period);
  }
  return std::nullopt;
}

/// This process's cgroup v2 path below the hierarchy's root, from /proc/self/cgroup ("0::/path"), without a
/// trailing slash (the root itself is "").
inline std::string find_cgroupV2Path() {
  std::ifstream file("/proc/self/cgroup");
  std::string line;
  while (std::getline(file, line)) {
    if (line.starts_with("0::")) {
      std::string path = line.substr(3);
      while (!path.empty() && path.back() == '/') path.pop_back();
      return path;
    }
  }
  return "";
}

}  // namespace detail

/// The cores this process may run on: its affinity mask, capped by a container's CPU quota; at least 1.
inline unsigned count_usableCores() {
  unsigned cores = 0;
  cpu_set_t mask;
  CPU_ZERO(&mask);
  if (sched_getaffinity(0, sizeof mask, &mask) == 0) cores = static_cast<unsigned>(CPU_COUNT(&mask));
  if (cores == 0) cores = std::max(1U, std::thread::hardware_concurrency());
  if (const auto quota = detail::read_cgroupV2Quota("/sys/fs/cgroup", detail::find_cgroupV2Path())) {
    cores = std::min(cores, *quota);
  }
  if (const auto quota = detail::read_cgroupV1Quota()) cores = std::min(cores, *quota);
  return std::clamp(cores, 1U, max_threads);
}

/// A whole number of at least `least` given by the user (an option or an environment variable) under `name`.
/// Throws std::invalid_argument "<name> must be a whole number from <least> to <most>, not "<text>"" otherwise.
inline std::uint64_t parse_count(const std::string& name, const std::string& text, std::uint64_t least,
                                 std::uint64_t most) {
  const auto fail = [&]() {
    return std::invalid_argument(name + " must be a whole number from " + std::to_string(least) + " to " +
                                 std::to_string(most) + ", not \"" + text + "\"");
  };
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) throw fail();
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (errno == ERANGE || *end != '\0' || value < least || value > most) throw fail();
  return value;
}

/// The count the environment variable `name` sets, when set (an empty value counts as not set).
inline std::optional<std::uint64_t> read_countVariable(const char* name, std::uint64_t least, std::uint64_t most) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return std::nullopt;
  return parse_count(name, text, least, most);
}

/// The threads a run uses: KOVRA_THREADS when set, otherwise count_usableCores().
inline unsigned get_threadCount() {
  if (const auto n = read_countVariable("KOVRA_THREADS", 1, max_threads)) return static_cast<unsigned>(*n);
  return count_usableCores();
}

/// Threads running `work(workerIndex)` from construction until join(). The first exception a worker lets out
/// is kept; the others are told to give up through stop_requested(), and join() rethrows it once all threads
/// have ended. Nothing is global: two pools never share anything.
class Worker_Pool {
 public:
  /// `onStop_`, when given, is called by request_stop() (from any thread, possibly more than once), e.g. to wake
  /// workers that wait on a condition.
  Worker_Pool(unsigned workers, std::function<void(unsigned)> work_, std::function<void()> onStop_ = {})
      : work(std::move(work_)), onStop(std::move(onStop_)) {
    threads.reserve(workers);
    try {
      for (unsigned w = 0; w < workers; ++w) threads.emplace_back([this, w]() { run(w); });
    } catch (...) {
      request_stop();
      join_all();
      throw;
    }
  }

  Worker_Pool(const Worker_Pool&) = delete;
  Worker_Pool& operator=(const Worker_Pool&) = delete;

  /// Never leaves a thread running: a pool left by an exception asks its workers to stop and waits for them.
  ~Worker_Pool() {
    request_stop();
    join_all();
  }

  /// Whether the workers should give up: a worker failed, or the owner asked them to stop.
  bool stop_requested() const { return stopping.load(std::memory_order_acquire); }

  void request_stop() {
    stopping.store(true, std::memory_order_release);
    if (onStop) onStop();
  }

  /// Waits for every worker; rethrows the first failure.
  void join() {
    join_all();
    if (failure) std::rethrow_exception(failure);
  }

 private:
  void run(unsigned w) {
    try {
      work(w);
    } catch (...) {
      {
        const std::lock_guard lock(failureMutex);
        if (!failure) failure = std::current_exception();
      }
      request_stop();
    }
  }

  void join_all() {
    for (auto& t : threads) {
      if (t.joinable()) t.join();
    }
  }

  std::function<void(unsigned)> work;
  std::function<void()> onStop;
  std::atomic<bool> stopping{false};
  std::mutex failureMutex;
  std::exception_ptr failure;
  std::vector<std::thread> threads;
};

}  // namespace kovra
