#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "FileBytes.hpp"
#include "TempDir.hpp"
#include "kovra/ContainerFile_Writer.hpp"
#include "kovra/OutputFile_Atomic.hpp"
#include "kovra/tpx3spidr/Tpx3Spidr.hpp"

using namespace kovra::tpx3spidr;

namespace {

std::vector<std::string> names_in(const std::filesystem::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename().string());
  return names;
}

Data_Events sample_events(bool withTriggers, std::size_t count = 2) {
  std::vector<Event> events{{Length{1}, Length{-2}, Time{3}, 4, 0.5}, {Length{7}, Length{8}, Time{-9}, 1, 0.0}};
  events.resize(count);
  std::optional<std::vector<Time>> triggers;
  if (withTriggers) triggers.emplace(std::vector<Time>{Time{5}, Time{-6}});
  return Data_Events(std::move(events), std::move(triggers));
}

TEST(OutputFileAtomicTest, TargetChangesOnlyOnCommitAndNothingElseIsLeft) {
  TempDir dir;
  const std::string target = dir.file("out.kovraevent");
  write_bytes(target, "old");
  {
    kovra::OutputFile_Atomic file(target);
    file.stream() << "new content";
    file.stream().flush();
    EXPECT_EQ(read_bytes(target), "old");
  }  // destroyed without commit: discarded
  EXPECT_EQ(read_bytes(target), "old");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"out.kovraevent"});

  kovra::OutputFile_Atomic file(target);
  file.stream() << "new content";
  file.commit();
  EXPECT_EQ(read_bytes(target), "new content");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"out.kovraevent"});
  struct stat status {};
  ASSERT_EQ(stat(target.c_str(), &status), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(status.st_mode & 0777, 0666 & ~mask);
}

TEST(OutputFileAtomicTest, TargetsThatCannotBeWrittenGiveABadStreamAndTheReason) {
  TempDir dir;
  std::filesystem::create_directory(dir.path() / "taken.kovraevent");
  for (const auto& [target, error] :
       {std::pair{dir.file("missing/out.kovraevent"), ENOENT}, std::pair{dir.file("taken.kovraevent"), EISDIR}}) {
    kovra::OutputFile_Atomic file(target);
    file.stream() << "x";
    EXPECT_FALSE(file.stream().good()) << target;
    EXPECT_EQ(file.get_error(), error) << target;
    EXPECT_EQ(static_cast<std::streamoff>(file.stream().tellp()), -1) << target;
    EXPECT_THROW(file.commit(), std::runtime_error) << target;
  }
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() / "taken.kovraevent"));
}

TEST(ContainerFileWriterTest, StreamedFileEqualsTheWholeFileWriterByteForByte) {
  TempDir dir;
  for (const auto& [count, withTriggers] :
       std::vector<std::pair<std::size_t, bool>>{{0, false}, {2, false}, {2, true}}) {
    const Data_Events data = sample_events(withTriggers, count);
    std::filesystem::remove(dir.file("streamed.kovraevent"));
    FileHandler_Events::save_file(dir.file("whole.kovraevent"), data);

    kovra::ContainerFile_Writer<3> writer(dir.file("streamed.kovraevent"));
    writer.begin_block(FileHandler_Events::IO_Events::identifier);
    for (const Event& event : data.events) writer.append(std::span<const Event>(&event, 1));
    writer.end_block();
    if (withTriggers) {
      writer.begin_block(kovra::detail::make_identifier("extTrigs"));
      writer.append(std::span<const Time>(*data.extTriggers));
      writer.end_block();
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("streamed.kovraevent")));
    writer.commit();

    FileBytes events;
    if (count > 0) events.i32(1).i32(-2).i64(3).u64(4).f64(0.5).i32(7).i32(8).i64(-9).u64(1).f64(0.0);
    FileBytes content = FileBytes().block("events", events);  // 64 bytes in all when empty, without triggers
    if (withTriggers) content.block("extTrigs", FileBytes().i64(5).i64(-6));
    EXPECT_EQ(read_bytes(dir.file("streamed.kovraevent")), FileBytes::file(3, content).data);
    EXPECT_EQ(read_bytes(dir.file("whole.kovraevent")), FileBytes::file(3, content).data);
  }
}

TEST(ContainerFileWriterDeathTest, AnUnwritableTargetStopsOnTheSizeCheck) {
  TempDir dir;
  EXPECT_DEATH(kovra::ContainerFile_Writer<3>(dir.file("missing/out.kovraevent")),
               "end_content - begin_content == size_content");
  EXPECT_DEATH(FileHandler_Events::save_file(dir.file("missing/out.kovraevent"), sample_events(true)),
               "end_content - begin_content == size_content");
}

// A full disk, played by a file-size limit of 4096 bytes with its signal ignored (so that the write fails with
// EFBIG instead), in the child process of each EXPECT_EXIT; the child's status says whether the check held.
TEST(ContainerFileWriterDeathTest, AFailedWriteShowsInGoodAndCommitGivesItsReason) {
  TempDir dir;
  const std::string target = dir.file("out.kovraevent");
  write_bytes(target, "old");
  const auto underLimit = [](const auto& check) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    std::exit(check() ? 0 : 1);
  };
  // 40 kB of events wait in the writer's buffer: good() says nothing of them until flush() pushes them out.
  const std::vector<Event> events(1000, Event{Length{1}, Length{2}, Time{3}, 4, 0.5});
  EXPECT_EXIT(underLimit([&] {
                kovra::ContainerFile_Writer<3> writer(target);
                writer.begin_block(FileHandler_Events::IO_Events::identifier);
                writer.append(std::span<const Event>(events));
                if (!writer.good()) return false;
                writer.flush();
                return !writer.good() && writer.get_error() == EFBIG;
              }),
              testing::ExitedWithCode(0), "");
  EXPECT_EXIT(underLimit([&] {
                kovra::OutputFile_Atomic file(target);
                file.stream() << std::string(8192, 'x') << std::flush;
                errno = 0;  // whatever ran since the write that failed
                try {
                  file.commit();
                } catch (const std::runtime_error& e) {
                  return std::string(e.what()) == "cannot write \"" + target + "\": File too large";
                }
                return false;
              }),
              testing::ExitedWithCode(0), "");
  EXPECT_EQ(read_bytes(target), "old");
  EXPECT_EQ(names_in(dir.path()), std::vector<std::string>{"out.kovraevent"});
}

}  // namespace
