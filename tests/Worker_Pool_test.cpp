#include "kovra/Worker_Pool.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "TempDir.hpp"

namespace {

using testing::StrEq;
using testing::ThrowsMessage;

TEST(WorkerPoolTest, CountsAreWholeNumbersInRange) {
  EXPECT_EQ(kovra::parse_count("KOVRA_THREADS", "1", 1, 1024), 1U);
  EXPECT_EQ(kovra::parse_count("KOVRA_THREADS", "1024", 1, 1024), 1024U);
  EXPECT_EQ(kovra::parse_count("--threads", "007", 1, 1024), 7U);
  for (const char* bad : {"0", "1025", "", "-1", "+2", "2.0", "2 ", " 2", "two", "99999999999999999999999"}) {
    EXPECT_THAT([&] { kovra::parse_count("KOVRA_THREADS", bad, 1, 1024); },
                ThrowsMessage<std::invalid_argument>(
                    StrEq(std::string("KOVRA_THREADS must be a whole number from 1 to 1024, not \"") + bad + "\"")))
        << bad;
  }
}

TEST(WorkerPoolTest, QuotaOfTheTightestCgroupOnThePath) {
  const TempDir dir;
  const std::string root = dir.path().string();
  std::filesystem::create_directories(root + "/a/b");
  std::ofstream(root + "/cpu.max") << "max 100000\n";
  std::ofstream(root + "/a/cpu.max") << "150000 100000\n";  // 1.5 cores: 2
  EXPECT_EQ(kovra::detail::read_cgroupV2Quota(root, "/a/b"), 2U);
  std::ofstream(root + "/a/b/cpu.max") << "50000 100000\n";  // half a core: 1
  EXPECT_EQ(kovra::detail::read_cgroupV2Quota(root, "/a/b"), 1U);
  EXPECT_EQ(kovra::detail::read_cgroupV2Quota(root, ""), std::nullopt);
  EXPECT_EQ(kovra::detail::cores_of_quota(-1, 100000), std::nullopt);  // cgroup v1: no quota
  EXPECT_EQ(kovra::detail::cores_of_quota(400000, 100000), 4U);
  const unsigned cores = kovra::count_usableCores();
  EXPECT_GE(cores, 1U);
  EXPECT_LE(cores, std::max(1U, std::thread::hardware_concurrency()));
}

TEST(WorkerPoolTest, FirstFailureReachesTheOwnerAndStopsTheOthers) {
  std::atomic<unsigned> ran{0};
  std::atomic<unsigned> stopped{0};
  kovra::Worker_Pool* self = nullptr;
  std::atomic<bool> ready{false};
  kovra::Worker_Pool pool(4, [&](unsigned w) {
    while (!ready.load()) std::this_thread::yield();
    ++ran;
    if (w == 2) throw std::invalid_argument("worker 2 failed");
    while (!self->stop_requested()) std::this_thread::yield();  // would hang without the stop
    ++stopped;
  });
  self = &pool;
  ready = true;
  EXPECT_THAT([&] { pool.join(); }, ThrowsMessage<std::invalid_argument>(StrEq("worker 2 failed")));
  EXPECT_EQ(ran.load(), 4U);
  EXPECT_EQ(stopped.load(), 3U);
}

}  // namespace
