// The folder watch's reading of inotify events, on virtual time: the events
// are fed in as the kernel would hand them over, so lost events, unmounts
// and dropped watches need neither a full queue nor a mount.
#include "library/FolderWatch.h"

#include "support/TempDir.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

namespace orvane {
namespace {

using ::testing::IsEmpty;

// Raw events, laid out as read(2) returns them from an inotify descriptor.
class RawEvents {
public:
  RawEvents& add(int wd, uint32_t mask, const std::string& name = "") {
    // The name is NUL-padded to a multiple of the header's alignment.
    uint32_t len = name.empty() ? 0 : uint32_t((name.size() + 1 + 15) / 16 * 16);
    struct inotify_event header {};
    header.wd = wd;
    header.mask = mask;
    header.len = len;
    bytes_.append(reinterpret_cast<const char*>(&header), sizeof header);
    std::string padded = name;
    padded.resize(len, '\0');
    bytes_ += padded;
    return *this;
  }
  const std::string& bytes() const { return bytes_; }

private:
  std::string bytes_;
};

class FolderWatchTest : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(watch.start(folder.path(), folder.path())); }

  void feed(const RawEvents& events) {
    // The reader expects its buffer aligned for the header, as the kernel
    // hands it over.
    std::vector<struct inotify_event> aligned(events.bytes().size() / sizeof(inotify_event) + 1);
    std::memcpy(aligned.data(), events.bytes().data(), events.bytes().size());
    watch.handleEvents(reinterpret_cast<const char*>(aligned.data()), events.bytes().size());
  }

  TempDir folder;
  VirtualScheduler scheduler;
  std::vector<std::vector<FolderEvent>> batches;
  FolderWatch watch{scheduler,
                    [this](const std::vector<FolderEvent>& batch) { batches.push_back(batch); }};
};

TEST_F(FolderWatchTest, FileEventsArriveOneSecondLaterOncePerPath) {
  int wd = watch.folderDescriptor();
  feed(RawEvents().add(wd, IN_MODIFY, "a.pdf").add(wd, IN_CLOSE_WRITE, "a.pdf"));
  scheduler.advance(0.99);
  EXPECT_THAT(batches, IsEmpty());
  scheduler.advance(0.01);
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].size(), 1u);
  EXPECT_EQ(batches[0][0].path, folder.file("a.pdf"));
  EXPECT_FALSE(batches[0][0].root_changed);
  EXPECT_FALSE(batches[0][0].events_lost);
}

TEST_F(FolderWatchTest, QueueOverflowIsReportedAsLostEvents) {
  feed(RawEvents().add(-1, IN_Q_OVERFLOW));
  scheduler.advance(0.99);
  EXPECT_THAT(batches, IsEmpty());
  scheduler.advance(0.01);
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].size(), 1u);
  EXPECT_TRUE(batches[0][0].events_lost);
  EXPECT_FALSE(batches[0][0].root_changed);
}

TEST_F(FolderWatchTest, UnmountOrDroppedWatchOfTheFolderIsTheRootChanging) {
  for (uint32_t mask : {uint32_t(IN_UNMOUNT), uint32_t(IN_IGNORED)}) {
    batches.clear();
    ASSERT_TRUE(watch.start(folder.path(), folder.path()));
    feed(RawEvents().add(watch.folderDescriptor(), mask));
    scheduler.advance(1.0);
    ASSERT_EQ(batches.size(), 1u) << mask;
    ASSERT_EQ(batches[0].size(), 1u) << mask;
    EXPECT_TRUE(batches[0][0].root_changed) << mask;
    EXPECT_EQ(batches[0][0].path, folder.path()) << mask;
  }
}

TEST_F(FolderWatchTest, TruncatedOrOverlongEventsAreNotReadPastTheirEnd) {
  int wd = watch.folderDescriptor();
  RawEvents events;
  events.add(wd, IN_MODIFY, "whole.pdf");
  std::string bytes = events.bytes();
  // A header whose name would run far past the buffer, then half a header.
  struct inotify_event overlong {};
  overlong.wd = wd;
  overlong.mask = IN_MODIFY;
  overlong.len = 1 << 20;
  bytes.append(reinterpret_cast<const char*>(&overlong), sizeof overlong);
  bytes.append("abc");
  std::vector<struct inotify_event> aligned(bytes.size() / sizeof(inotify_event) + 1);
  std::memcpy(aligned.data(), bytes.data(), bytes.size());
  watch.handleEvents(reinterpret_cast<const char*>(aligned.data()), bytes.size());
  // A name without its terminating NUL is cut at the buffer's end.
  RawEvents unterminated;
  unterminated.add(wd, IN_MODIFY, "x");
  std::string raw = unterminated.bytes();
  std::memset(raw.data() + sizeof(inotify_event), 'y', raw.size() - sizeof(inotify_event));
  std::vector<struct inotify_event> aligned_raw(raw.size() / sizeof(inotify_event) + 1);
  std::memcpy(aligned_raw.data(), raw.data(), raw.size());
  watch.handleEvents(reinterpret_cast<const char*>(aligned_raw.data()), raw.size());
  scheduler.advance(1.0);
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].size(), 2u);
  EXPECT_EQ(batches[0][0].path, folder.file("whole.pdf"));
  EXPECT_EQ(batches[0][1].path, folder.file(std::string(16, 'y')));
}

} // namespace
} // namespace orvane
